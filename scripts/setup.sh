#!/bin/sh
# Installs what the build and the tests need (Debian packages, as root), or says exactly what is missing.
set -eu

packages="g++ cmake make openjdk-17-jdk-headless junit5 libgtest-dev libgmock-dev binutils util-linux dpkg-dev file"
missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    echo "installing:$missing"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing >/dev/null
else
    echo "missing Debian packages:$missing" >&2
    echo "install them with: apt-get install$missing" >&2
    exit 1
fi
