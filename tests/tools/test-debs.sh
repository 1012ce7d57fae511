#!/usr/bin/env bash
# Builds the Debian packages with scripts/build-debs.sh and checks what each
# carries (dpkg-deb -c) and what it depends on (dpkg-deb -f): the library
# under its SONAME package name, the development files, the tools, the udev
# rule in /usr/lib/udev/rules.d and the manual pages; dependencies found
# from the binaries. lintian, where installed, must report no error.
# Usage: test-debs.sh SOURCE_DIR
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
SOURCE=$1
RUN_TIMEOUT=1100
OUT="$HARNESS_TMP/debs"
VERSION=$(dpkg-parsechangelog -l "$SOURCE/debian/changelog" -S Version)
ARCH=$(dpkg --print-architecture)
MULTIARCH=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

JOBS=${JOBS:-2} run_prog "$SOURCE/scripts/build-debs.sh" "$OUT"
if [ "$status" -ne 0 ]; then
    echo "build-debs.sh failed: $errors" >&2
    exit 1
fi

deb() { # PACKAGE -> its file
    local arch=$ARCH
    [ "$1" = libkarvex-common ] && arch=all
    echo "$OUT/${1}_${VERSION}_${arch}.deb"
}

# The files of a package without directories and the documentation debhelper adds.
files_of() {
    dpkg-deb -c "$(deb "$1")" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' | grep -v "^/usr/share/doc/$1/" | sort
}

expect_files() { # PACKAGE FILE...
    local pkg=$1 want got
    shift
    want=$(printf '%s\n' "$@" | sort)
    got=$(files_of "$pkg")
    [ "$got" = "$want" ] || fail "$pkg carries: $(echo $got), expected: $(echo $want)"
}

expect_depends() { # PACKAGE REGEX...
    local pkg=$1 depends re
    shift
    depends=$(dpkg-deb -f "$(deb "$pkg")" Depends)
    for re in "$@"; do
        [[ ", $depends," =~ ,\ $re[\ ,] ]] || fail "$pkg: Depends '$depends' lacks /$re/"
    done
}

test_exactly_five_packages() {
    local got
    got=$(cd "$OUT" && ls -- *.deb | tr '\n' ' ')
    [ "$got" = "karvex-emu_${VERSION}_$ARCH.deb karvexctl_${VERSION}_$ARCH.deb libkarvex-common_${VERSION}_all.deb libkarvex-dev_${VERSION}_$ARCH.deb libkarvex1_${VERSION}_$ARCH.deb " ] ||
        fail "packages: $got"
}

test_file_lists() {
    local lib=/usr/lib/$MULTIARCH
    expect_files libkarvex1 "$lib/libkarvex.so.1" "$lib/libkarvex.so.$VERSION"
    expect_files libkarvex-common /usr/lib/udev/rules.d/70-karvex.rules
    expect_files libkarvex-dev /usr/include/karvex/karvex_api.h "$lib/libkarvex.so" "$lib/pkgconfig/karvex.pc" \
        "$lib/cmake/karvex/karvexConfig.cmake" "$lib/cmake/karvex/karvexConfigVersion.cmake" \
        "$lib/cmake/karvex/karvexTargets.cmake" "$lib/cmake/karvex/karvexTargets-none.cmake" \
        /usr/share/man/man3/libkarvex.3.gz
    expect_files karvexctl /usr/bin/karvexctl /usr/share/man/man1/karvexctl.1.gz
    expect_files karvex-emu /usr/bin/karvex-emu /usr/share/man/man1/karvex-emu.1.gz
}

test_dependencies() {
    local upstream=${VERSION%%-*}
    expect_depends libkarvex1 'libc6 \(>= [0-9.]+\)' 'libudev1 \(>= [0-9]+\)' 'libstdc\+\+6 \(>= [0-9]+\)' \
        "libkarvex-common \\(= $VERSION\\)"
    expect_depends libkarvex-dev "libkarvex1 \\(= $VERSION\\)" libudev-dev
    expect_depends karvexctl "libkarvex1 \\(>= $upstream\\)" 'libudev1 \(>= [0-9]+\)' 'libc6 \(>= [0-9.]+\)'
    expect_depends karvex-emu umockdev 'libumockdev0 \(>= [0-9.]+\)'
    [[ "$(dpkg-deb -f "$(deb karvex-emu)" Depends)" != *libkarvex1* ]] ||
        fail "karvex-emu depends on the library it emulates an adapter for"
    # The library package tells dpkg-shlibdeps which package provides the SONAME.
    dpkg-deb -e "$(deb libkarvex1)" "$HARNESS_TMP/control"
    grep -qx "libkarvex 1 libkarvex1 (>= $upstream)" "$HARNESS_TMP/control/shlibs" ||
        fail "libkarvex1 shlibs: $(cat "$HARNESS_TMP/control/shlibs" 2>&1)"
}

test_dev_package_names_its_prefix() {
    dpkg-deb -x "$(deb libkarvex-dev)" "$HARNESS_TMP/dev"
    grep -qx 'prefix=/usr' "$HARNESS_TMP/dev/usr/lib/$MULTIARCH/pkgconfig/karvex.pc" ||
        fail "karvex.pc in the package: $(head -n 1 "$HARNESS_TMP/dev/usr/lib/$MULTIARCH/pkgconfig/karvex.pc")"
}

test_no_rpath_in_the_tools() {
    local exe
    for exe in karvexctl karvex-emu; do
        dpkg-deb -x "$(deb "$exe")" "$HARNESS_TMP/$exe"
        ! readelf -d "$HARNESS_TMP/$exe/usr/bin/$exe" | grep -q 'RPATH\|RUNPATH' || fail "$exe has an RPATH"
    done
}

test_lintian_reports_no_error() {
    command -v lintian >/dev/null || { fail "lintian not installed (scripts/install-deps.sh installs it)"; return; }
    run_prog lintian --fail-on error "$OUT"/*.changes
    status_is 0 "lintian: $output"
}

run_tests
