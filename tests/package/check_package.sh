#!/bin/sh
# Makes the .deb with CPack into a temporary folder, then checks that it
# holds exactly the expected files, that the generator computed the shared
# library dependencies, and that lintian reports no error.
# usage: check_package.sh CPACK_CONFIG VERSION
set -eu
export LC_ALL=C
config=${1:?usage: check_package.sh CPACK_CONFIG VERSION}
version=${2:?usage: check_package.sh CPACK_CONFIG VERSION}
for tool in cpack dpkg-deb dpkg-shlibdeps lintian; do
    if ! command -v "$tool" >/dev/null; then
        echo "skipped: $tool is not installed"
        exit 77
    fi
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack --config "$config" -B "$dir" >"$dir/cpack.log" 2>&1 || { cat "$dir/cpack.log"; fail "cpack failed"; }
deb="$dir/ostrand_${version}_amd64.deb"
[ -f "$deb" ] || fail "no $deb: $(ls "$dir")"

dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }' | sort >"$dir/files"
cat >"$dir/expected" <<LIST
./usr/bin/ostrand
./usr/bin/ostrand-cli
./usr/share/applications/ostrand.desktop
./usr/share/bash-completion/completions/ostrand-cli
./usr/share/doc/ostrand/changelog.gz
./usr/share/doc/ostrand/copyright
./usr/share/icons/hicolor/scalable/apps/ostrand.svg
./usr/share/man/man1/ostrand-cli.1.gz
./usr/share/man/man1/ostrand.1.gz
./usr/share/metainfo/io.github.ostrand.Ostrand.metainfo.xml
LIST
diff -u "$dir/expected" "$dir/files" || fail "the package's files differ from the list"

depends=$(dpkg-deb -f "$deb" Depends)
for library in libc6 libqt6widgets6 libqt6network6 libqt6svg6 libavformat libsodium23; do
    echo "$depends" | grep -q "$library" || fail "Depends lacks $library: $depends"
done

lintian --tag-display-limit 0 "$deb" >"$dir/lintian.log" 2>&1 || true
cat "$dir/lintian.log"
if grep -q '^E: ' "$dir/lintian.log"; then
    fail "lintian reports errors"
fi
echo "package ok: $(basename "$deb"), $(wc -l <"$dir/files") files, no lintian errors"
