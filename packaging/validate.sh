#!/bin/sh
# Checks the desktop file and the AppStream metainfo with their validators.
# usage: validate.sh PACKAGING_DIR. Exits 77 (skipped) when a validator is
# not installed.
set -eu
dir=${1:?usage: validate.sh PACKAGING_DIR}
for tool in desktop-file-validate appstreamcli; do
    if ! command -v "$tool" >/dev/null; then
        echo "skipped: $tool is not installed"
        exit 77
    fi
done
desktop-file-validate "$dir/ostrand.desktop"
appstreamcli validate --no-net --explain "$dir/io.github.ostrand.Ostrand.metainfo.xml"
