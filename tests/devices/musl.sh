#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# musl.sh ARGUMENT...: runs cmake for a system of musl's, below /opt/musl in the root file system of the row musl of
# tests/devices.sh.
#
# musl.sh --libraries: makes that system. Debian has musl for C alone: the C++ library, and what plug-in, tools and tests are
# linked with, are compiled here from Debian's sources, as static libraries. Each is made once.
set -euo pipefail

triple=x86_64-linux-musl
system=/opt/musl
work=/opt/musl-build
compiler=$system/bin/$triple-clang

# What a script of its own needs is here, in the order in which it is made.
libraries=(compiler musl libcxx googletest fmt cli11 json_c pcre2 glib openssl)

cmake_for_musl() {
    PKG_CONFIG_SYSROOT_DIR=$system PKG_CONFIG_LIBDIR=$system/usr/lib/pkgconfig cmake "$@" \
        -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=x86_64 -DCMAKE_CROSSCOMPILING_EMULATOR=env \
        -DCMAKE_SYSROOT=$system -DPKG_CONFIG_ARGN=--static \
        -DCMAKE_C_COMPILER=$compiler -DCMAKE_CXX_COMPILER=$compiler++ \
        -DCMAKE_FIND_ROOT_PATH_MODE_PROGRAM=NEVER -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY
}

# fetch PACKAGE [MEMBER...]: Debian's sources, or only some folders of them, in $work/PACKAGE
fetch() {
    local package=$1
    shift
    mkdir -p "$work/$package"
    cd $work
    apt-get -q source --download-only --tar-only "$package"
    tar -C "$package" --strip-components=1 --wildcards --no-wildcards-match-slash -xf "${package}"_*.orig.tar.?z "$@"
    rm "${package}"_*
}

# install_with_cmake FOLDER OPTION...
install_with_cmake() {
    cmake_for_musl -G Ninja -S "$1" -B $work/build -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF -DCMAKE_POSITION_INDEPENDENT_CODE=ON "${@:2}"
    DESTDIR=$system nice ninja -C $work/build install
}

# clang, with nothing of Debian's own C library. Options of the linker are unused where nothing is linked.
make_compiler() {
    local name
    mkdir -p $system/bin
    for name in clang clang++; do
        printf '#!/bin/sh\nexec %s --target=%s --sysroot=%s --gcc-toolchain=%s %s "$@"\n' $name $triple $system $system \
            '-stdlib=libc++ -rtlib=compiler-rt -unwindlib=none -fuse-ld=lld -Qunused-arguments' >"$system/bin/$triple-$name"
        chmod +x "$system/bin/$triple-$name"
    done
}

# The package musl-dev, and headers that are those of every C library: the kernel's, and RapidJSON.
make_musl() {
    mkdir -p $system/usr
    cp -r /usr/include/$triple $system/usr/include
    cp -r /usr/lib/$triple $system/usr/lib
    ln -s /usr/include/{linux,asm-generic,x86_64-linux-gnu/asm,rapidjson} $system/usr/include
    mkdir $system/usr/lib/pkgconfig
    cp /usr/share/pkgconfig/RapidJSON.pc $system/usr/lib/pkgconfig
}

# One library, which holds the ABI's and the unwinder's.
make_libcxx() {
    fetch llvm-toolchain-14 '*/'{runtimes,cmake,llvm/cmake,libunwind,libcxxabi,libcxx}
    install_with_cmake $work/llvm-toolchain-14/runtimes -DCMAKE_CXX_COMPILER_WORKS=ON \
        -DLLVM_ENABLE_RUNTIMES='libunwind;libcxxabi;libcxx' -DLLVM_INCLUDE_TESTS=OFF \
        -DLIBUNWIND_ENABLE_SHARED=OFF -DLIBCXXABI_ENABLE_SHARED=OFF -DLIBCXX_ENABLE_SHARED=OFF \
        -DLIBUNWIND_USE_COMPILER_RT=ON -DLIBCXXABI_USE_COMPILER_RT=ON -DLIBCXX_USE_COMPILER_RT=ON \
        -DLIBCXXABI_USE_LLVM_UNWINDER=ON -DLIBCXXABI_ENABLE_STATIC_UNWINDER=ON \
        -DLIBCXXABI_STATICALLY_LINK_UNWINDER_IN_STATIC_LIBRARY=ON -DLIBCXX_ENABLE_STATIC_ABI_LIBRARY=ON \
        -DLIBCXX_HAS_MUSL_LIBC=ON -DLIBCXX_INCLUDE_BENCHMARKS=OFF -DLIBCXX_INCLUDE_TESTS=OFF
}

make_googletest() {
    install_with_cmake /usr/src/googletest
}

make_fmt() {
    fetch fmtlib
    install_with_cmake $work/fmtlib -DFMT_TEST=OFF -DFMT_DOC=OFF
}

make_cli11() {
    fetch cli11
    install_with_cmake $work/cli11 -DCLI11_BUILD_TESTS=OFF -DCLI11_BUILD_EXAMPLES=OFF -DCLI11_BUILD_DOCS=OFF
}

make_json_c() {
    fetch json-c
    install_with_cmake $work/json-c -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON
}

make_pcre2() {
    fetch pcre2
    install_with_cmake $work/pcre2 -DPCRE2_BUILD_PCRE2GREP=OFF -DPCRE2_BUILD_TESTS=OFF
}

# GLib alone, without GObject and GIO. These would need libffi and zlib, so that those of Debian do to configure.
make_glib() {
    local headers=$system/usr/include/glib-2.0
    fetch glib2.0
    cat >$work/musl.ini <<END
[binaries]
c = '$compiler'
cpp = '$compiler++'
ar = 'ar'
pkgconfig = 'pkg-config'
[host_machine]
system = 'linux'
cpu_family = 'x86_64'
cpu = 'x86_64'
endian = 'little'
[properties]
sys_root = '$system'
pkg_config_libdir = '$system/usr/lib/pkgconfig:/usr/lib/x86_64-linux-gnu/pkgconfig'
END
    meson setup --cross-file $work/musl.ini --prefix=/usr --libdir=lib --buildtype=release --default-library=static \
        -Dtests=false -Dnls=disabled -Dselinux=disabled -Dlibmount=disabled -Dlibelf=disabled -Dxattr=false \
        $work/build $work/glib2.0
    nice ninja -C $work/build glib/libglib-2.0.a
    mkdir -p $headers/glib $system/usr/lib/glib-2.0/include
    cp $work/glib2.0/glib/{glib,glib-object,glib-unix}.h $headers
    cp -r $work/glib2.0/glib/{*.h,deprecated} $headers/glib
    cp $work/build/glib/libglib-2.0.a $system/usr/lib
    cp $work/build/glib/glibconfig.h $system/usr/lib/glib-2.0/include
    # Threads take no option with musl, and files that are compiled with one cannot share precompiled headers with others.
    sed 's/ -pthread//' $work/build/meson-private/glib-2.0.pc >$system/usr/lib/pkgconfig/glib-2.0.pc
}

make_openssl() {
    fetch openssl
    cd $work/openssl
    CC=$compiler ./Configure linux-x86_64 --prefix=/usr --libdir=lib --openssldir=/etc/ssl no-shared no-module no-tests -fPIC
    nice make -j "$(nproc)" build_libs
    make install_dev DESTDIR=$system
}

make_libraries() {
    local library sources=/etc/apt/sources.list.d/sources.list
    mkdir -p $system $work
    [ -e $sources ] || {
        sed 's/^deb /deb-src /' /etc/apt/sources.list >$sources
        apt-get -q update
    }
    for library in "${libraries[@]}"; do
        [ ! -e "$work/.$library-made" ] || continue
        echo "musl.sh: making $library"
        rm -rf $work/build
        (make_"$library")
        touch "$work/.$library-made"
    done
    # What they were made from is not needed again.
    find $work -mindepth 1 -maxdepth 1 -type d -exec rm -rf {} +
}

if [ "$1" = --libraries ]; then
    make_libraries
else
    cmake_for_musl "$@"
fi
