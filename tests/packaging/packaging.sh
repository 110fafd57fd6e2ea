#!/bin/sh
# What a user of the built artefacts gets: a build without tests, quillon.jar on its own, an install,
# the Debian packages. Usage: packaging.sh CASE, with the paths in QUILLON_* variables set by CTest.
set -eu
scratch=$(mktemp -d)
installed=""
cleanup() {
    if [ -n "$installed" ]; then dpkg --purge libquillon-java libquillon-jni >/dev/null 2>&1 || true; fi
    if mountpoint -q "$scratch/noexec" 2>/dev/null; then umount "$scratch/noexec"; fi
    rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
expect() { # TEXT OUTPUT: the output holds the text
    case $2 in *"$1"*) ;; *) printf '%s\n' "$2" >&2; fail "expected \"$1\" in the output above" ;; esac
}
lines() { # PATTERN OUTPUT: how many lines match
    printf '%s\n' "$2" | grep -c -- "$1" || true
}
run_java() { timeout 120 "$QUILLON_JAVA" "$@"; }
# The probe in a directory holding only quillon.jar: "probe OPTIONS..." prints its output, fails on error.
mkdir "$scratch/app" && cp "$QUILLON_JAR" "$scratch/app/quillon.jar"
probe() {
    output=$(cd "$scratch/app" && run_java "$@" 2>&1) || { printf '%s\n' "$output" >&2; fail "java $*"; }
    printf '%s\n' "$output"
}
probe_fails() { (cd "$scratch/app" && ! run_java "$@" -cp "quillon.jar:$QUILLON_PROBE" LoadProbe 2>&1); }
extracted="/quillon-$QUILLON_VERSION-[0-9]*/libQuillon60ProcessManagement.so (deleted)"

case $1 in
build-without-tests)
    out=$("$QUILLON_CMAKE" -S "$QUILLON_SOURCE" -B "$scratch/junit" -G "$QUILLON_GENERATOR" -DBUILD_TESTING=ON \
        -DQUILLON_JUNIT_DIR="$scratch/none" 2>&1) && fail "configured without JUnit"
    expect "apt-get install junit5" "$out"
    "$QUILLON_CMAKE" -S "$QUILLON_SOURCE" -B "$scratch/b" -G "$QUILLON_GENERATOR" -DBUILD_TESTING=OFF >/dev/null
    "$QUILLON_CMAKE" --build "$scratch/b" -j2 >"$scratch/log" 2>&1 || { tail -30 "$scratch/log"; fail build; }
    for file in libQuillon60ProcessManagement.so.1 quillon.jar quillon-demo.jar javadoc/index.html; do
        [ -f "$scratch/b/$file" ] || fail "no $file"
    done
    [ ! -e "$scratch/b/tests" ] || fail "tests were configured"
    ;;
jar-alone)
    out=$(probe -cp "quillon.jar:$QUILLON_PROBE" LoadProbe)
    expect "exit code 3" "$out"
    system=$(printf '%s\n' "$out" | grep '^library ' | grep -v -- "$extracted" || true)
    [ -z "$system" ] || skip "an installed library was loaded first ($system); the jar's copy is not used"
    [ "$(lines "^library /tmp$extracted" "$out")" = 1 ] || fail "not one extracted copy in /tmp: $out"
    ;;
jar-tmpdir)
    mkdir "$scratch/base"
    out=$(probe -Dquillon.library.tmpdir="$scratch/base" -Djava.library.path="$scratch/none" \
        -cp "quillon.jar:$QUILLON_PROBE" LoadProbe)
    expect "exit code 3" "$out"
    [ "$(lines "^library $scratch/base$extracted" "$out")" = 1 ] || fail "not one copy in the tmpdir: $out"
    [ -z "$(ls -A "$scratch/base")" ] || fail "left behind: $(ls -A "$scratch/base")"
    ;;
jar-noexec-tmpdir)
    [ "$(id -u)" = 0 ] || skip "needs root to mount a noexec file system"
    mkdir "$scratch/noexec"
    mount -t tmpfs -o noexec,size=8m tmpfs "$scratch/noexec" 2>/dev/null || skip "cannot mount a tmpfs here"
    out=$(probe_fails -Dquillon.library.tmpdir="$scratch/noexec" -Djava.library.path="$scratch/none") ||
        fail "loaded from a noexec directory"
    expect "mounted noexec" "$out"
    expect "-Dquillon.library.tmpdir=<dir>" "$out"
    ;;
jar-explicit-missing)
    out=$(probe_fails -Dquillon.library.path=/no/such/lib.so) || fail "a missing explicit library was not reported"
    expect "quillon.library.path=/no/such/lib.so" "$out"
    ;;
jar-explicit-other-version)
    out=$(probe_fails -Dquillon.library.path="$QUILLON_OTHER_LIB") || fail "a library of another version was used"
    expect "is version 0.0-other, but this jar is version $QUILLON_VERSION" "$out"
    ;;
jar-three-loaders)
    out=$(probe -Djava.library.path="$scratch/none" -cp "quillon.jar:$QUILLON_PROBE" LoadProbe loaders quillon.jar)
    [ "$(lines "^exit code 3$" "$out")" = 3 ] || fail "not three exit codes 3: $out"
    [ "$(lines "^library .*$extracted" "$out")" = 3 ] || fail "not one extracted copy per class loader: $out"
    ;;
jar-three-loaders-library-path | jar-three-loaders-explicit-path)
    # The first class loader takes the build's library, the others each a private copy.
    option=-Dquillon.library.path="$QUILLON_LIB"
    [ "$1" = jar-three-loaders-explicit-path ] || option=-Djava.library.path="$(dirname "$QUILLON_LIB")"
    out=$(probe "$option" -cp "quillon.jar:$QUILLON_PROBE" LoadProbe loaders quillon.jar)
    [ "$(lines "^exit code 3$" "$out")" = 3 ] || fail "not three exit codes 3: $out"
    [ "$(lines "^library $(dirname "$QUILLON_LIB")/" "$out")" = 1 ] || fail "the build's library was not used: $out"
    [ "$(lines "^library .*$extracted" "$out")" = 2 ] || fail "not one copy per other class loader: $out"
    ;;
jar-module-path)
    out=$(probe -Djava.library.path="$scratch/none" --module-path quillon.jar --add-modules com.norvane.quillon \
        -cp "$QUILLON_PROBE" LoadProbe)
    expect "exit code 3" "$out"
    ;;
install-destdir)
    usr="$scratch/root/usr"
    DESTDIR="$scratch/root" "$QUILLON_CMAKE" --install "$QUILLON_BUILD" --prefix /usr >/dev/null
    cd "$usr"
    files=$(find . ! -type d ! -path './share/doc/quillon/api/*' | sort | tr '\n' ' ')
    [ "$files" = "./$QUILLON_JNIDIR/libQuillon60ProcessManagement.so ./share/java/quillon-$QUILLON_VERSION.jar \
./share/java/quillon.jar ./share/quillon/quillon-demo.jar " ] || fail "installed: $files"
    [ "$(readlink share/java/quillon.jar)" = "quillon-$QUILLON_VERSION.jar" ] || fail "quillon.jar is no link"
    [ -f share/doc/quillon/api/index.html ] || fail "no javadoc"
    library="$usr/$QUILLON_JNIDIR/libQuillon60ProcessManagement.so"
    out=$(cd / && run_java -Dquillon.library.path="$library" -jar "$usr/share/quillon/quillon-demo.jar" 2>&1) ||
        fail "demo: $out"
    ;;
debs)
    command -v dpkg-deb >/dev/null || skip "dpkg-deb is not installed"
    mkdir -p "$QUILLON_DEBS" && rm -f "$QUILLON_DEBS"/*.deb
    "$QUILLON_CPACK" -G DEB --config "$QUILLON_BUILD/CPackConfig.cmake" -B "$scratch/cpack" >"$scratch/cpack.log" ||
        { cat "$scratch/cpack.log"; fail cpack; }
    mv "$scratch/cpack"/*.deb "$QUILLON_DEBS/"
    arch=$(dpkg --print-architecture)
    jni="$QUILLON_DEBS/libquillon-jni_${QUILLON_VERSION}_$arch.deb"
    java="$QUILLON_DEBS/libquillon-java_${QUILLON_VERSION}_all.deb"
    contents() { dpkg-deb --contents "$1" | awk '$1 !~ /^d/ { print $6 $7 $8 }' | grep -v '/api/.' | tr '\n' ' '; }
    [ "$(contents "$jni")" = "./usr/$QUILLON_JNIDIR/libQuillon60ProcessManagement.so " ] ||
        fail "libquillon-jni holds: $(contents "$jni")"
    [ "$(contents "$java")" = "./usr/share/java/quillon-$QUILLON_VERSION.jar \
./usr/share/java/quillon.jar->quillon-$QUILLON_VERSION.jar ./usr/share/quillon/quillon-demo.jar " ] ||
        fail "libquillon-java holds: $(contents "$java")"
    dpkg-deb --contents "$java" | grep -q ' ./usr/share/doc/quillon/api/index.html$' || fail "no javadoc"
    # The runtime packages of the libraries it is linked against, as dpkg-shlibdeps finds them.
    fields=$(dpkg-deb -f "$jni" Architecture Section Depends)
    expect "libc6 (>= " "$fields"
    for needed in $(objdump -p "$QUILLON_LIB" | awk '$1 == "NEEDED" { print $2 }'); do
        case $needed in
        libc.so.* | libm.so.* | libpthread.so.* | libdl.so.* | ld-linux*.so.*) ;; # all of libc6
        libstdc++.so.6) expect "libstdc++6 (>= " "$fields" ;;
        libgcc_s.so.1) expect "libgcc-s1 (>= " "$fields" ;;
        *) fail "linked against $needed, which no dependency covers" ;;
        esac
    done
    expect "Architecture: $arch" "$fields"
    expect "Section: java" "$fields"
    fields=$(dpkg-deb -f "$java" Architecture Depends)
    expect "Architecture: all" "$fields"
    expect "Depends: libquillon-jni (= $QUILLON_VERSION)" "$fields"
    ;;
deb-install)
    [ "$(id -u)" = 0 ] || skip "needs root to install the packages into this system"
    for package in libquillon-jni libquillon-java; do
        status=$(dpkg-query -W -f='${db:Status-Status}' $package 2>/dev/null || true)
        [ -z "$status" ] || [ "$status" = not-installed ] || skip "$package is already on this system ($status)"
    done
    installed=yes
    dpkg -i "$QUILLON_DEBS"/libquillon-jni_*.deb "$QUILLON_DEBS"/libquillon-java_*.deb >"$scratch/dpkg.log" 2>&1 ||
        { cat "$scratch/dpkg.log"; fail "dpkg -i"; }
    out=$(probe -cp "/usr/share/java/quillon.jar:$QUILLON_PROBE" LoadProbe)
    expect "exit code 3" "$out"
    expect "library /usr/$QUILLON_JNIDIR/libQuillon60ProcessManagement.so" "$out"
    out=$(cd / && run_java -jar /usr/share/quillon/quillon-demo.jar 2>&1) || fail "demo: $out"
    files=$(dpkg -L libquillon-jni libquillon-java | while read -r f; do [ -d "$f" ] || echo "$f"; done)
    dpkg -r libquillon-java libquillon-jni >"$scratch/dpkg.log" 2>&1 || { cat "$scratch/dpkg.log"; fail "dpkg -r"; }
    for f in $files; do [ ! -e "$f" ] && [ ! -L "$f" ] || fail "dpkg -r left $f"; done
    [ ! -e /usr/share/doc/quillon ] || fail "dpkg -r left /usr/share/doc/quillon"
    ;;
*) fail "unknown case $1" ;;
esac
echo "ok: $1"
