#!/bin/sh
# ostrand-sign end to end with a throwaway key: keygen, sign, verify, and
# one flipped byte in the file or in the signature, or another version,
# failing; then the appcast.
# usage: round_trip.sh OSTRAND_SIGN
set -eu
sign=${1:?usage: round_trip.sh OSTRAND_SIGN}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

public=$("$sign" keygen "$dir/key")
[ "$(printf %s "$public" | base64 -d | wc -c)" -eq 32 ] || fail "public key is not 32 bytes: $public"
[ "$(stat -c %a "$dir/key")" = 600 ] || fail "private key is not owner-only: $(stat -c %a "$dir/key")"
if "$sign" keygen "$dir/key" >/dev/null 2>&1; then fail "keygen replaced an existing key"; fi

head -c 300000 /dev/urandom >"$dir/package.deb"
line=$("$sign" sign "$dir/key" "$dir/package.deb" 0.2.0)
echo "$line" | grep -Eq '^sparkle:edSignature="[A-Za-z0-9+/=]{88}" length="300000"$' ||
    fail "sign printed: $line"
signature=$(echo "$line" | sed 's/^sparkle:edSignature="\([^"]*\)".*/\1/')
"$sign" verify "$public" "$dir/package.deb" 0.2.0 "$signature" >/dev/null || fail "a good signature failed"
# The signature binds the version: the same package cannot pass as another.
if "$sign" verify "$public" "$dir/package.deb" 0.3.0 "$signature" 2>/dev/null; then
    fail "a signature for 0.2.0 verified as 0.3.0"
fi

# One flipped byte in the file.
cp "$dir/package.deb" "$dir/flipped.deb"
printf '\377' | dd of="$dir/flipped.deb" bs=1 seek=150000 conv=notrunc status=none
if "$sign" verify "$public" "$dir/flipped.deb" 0.2.0 "$signature" 2>/dev/null; then
    fail "a flipped byte in the file verified"
fi
# One flipped byte in the signature (the first character changes its bits).
first=$(printf %s "$signature" | cut -c1)
other=A; [ "$first" = A ] && other=B
bad="$other$(printf %s "$signature" | cut -c2-)"
if "$sign" verify "$public" "$dir/package.deb" 0.2.0 "$bad" 2>/dev/null; then
    fail "a flipped signature verified"
fi
# Another key's public half.
other_public=$("$sign" keygen "$dir/other")
if "$sign" verify "$other_public" "$dir/package.deb" 0.2.0 "$signature" 2>/dev/null; then
    fail "another key verified"
fi
set +e
"$sign" verify "$public" "$dir/package.deb" 0.2.0 "$bad" 2>/dev/null; status=$?
set -e
[ "$status" -eq 1 ] || fail "verify failure exit status is $status, not 1"

# The appcast: created, then a second item on top; each carries the signature
# of its own version.
echo '<p>First <b>release</b></p>' >"$dir/notes.html"
"$sign" appcast "$dir/appcast.xml" "$dir/key" "$dir/package.deb" \
    https://example.com/ostrand_0.2.0_amd64.deb 0.2.0 "$dir/notes.html"
"$sign" appcast "$dir/appcast.xml" "$dir/key" "$dir/package.deb" \
    https://example.com/ostrand_0.3.0_amd64.deb 0.3.0 --critical
grep -q "sparkle:edSignature=\"$signature\"" "$dir/appcast.xml" || fail "appcast lacks the 0.2.0 signature"
newest=$(grep -o 'sparkle:edSignature="[^"]*"' "$dir/appcast.xml" | head -1 | sed 's/.*="\(.*\)"/\1/')
"$sign" verify "$public" "$dir/package.deb" 0.3.0 "$newest" >/dev/null ||
    fail "the 0.3.0 item's signature does not verify for 0.3.0"
[ "$(grep -c '<item>' "$dir/appcast.xml")" -eq 2 ] || fail "appcast does not have two items"
grep -n '<sparkle:version>' "$dir/appcast.xml" | head -1 | grep -q '0.3.0' || fail "newest item is not first"
grep -q 'sparkle:os="linux"' "$dir/appcast.xml" || fail "no sparkle:os"
grep -q '<pubDate>[A-Z][a-z][a-z], [0-9][0-9] [A-Z][a-z][a-z] 20[0-9][0-9] ' "$dir/appcast.xml" ||
    fail "no RFC 822 pubDate"
grep -q '<!\[CDATA\[<p>First <b>release</b></p>' "$dir/appcast.xml" || fail "release notes missing"
grep -q '<sparkle:criticalUpdate/>' "$dir/appcast.xml" || fail "critical flag missing"
if "$sign" appcast "$dir/appcast.xml" "$dir/key" "$dir/package.deb" \
    http://example.com/o.deb 0.4.0 2>/dev/null; then
    fail "appcast took a plain http:// download address"
fi
echo "ostrand-sign round trip passed"
