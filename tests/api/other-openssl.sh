#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# other-openssl.sh BUILD_FOLDER: programs that bring an OpenSSL of their own, or one function of it, load the plug-in.
# Their functions never judge a certificate: either the plug-in judges by the OpenSSL that it was linked with, or it
# refuses, and the log says why. And nothing of the plug-in's gets into the programs' names.
set -euo pipefail
build=$1 here=$(dirname "$(realpath "$0")")/partners
work=$(mktemp -d "$build/other-openssl.XXXXXX")
trap 'rm -rf "$work"' EXIT
[ -w /dev/net/tun ] || { echo 'skipped: there is no tun device for this user'; exit 77; }
failed=0
right="gateway 0; expired -1; stranger 0 ask; 0 calls of the program's own"
refused="gateway -1; expired -1; stranger -1; 0 calls of the program's own"

# program NAME FLAG...: builds it
program() {
    "${CXX:-c++}" -std=c++17 -Wall -Wextra -Werror -I"$here/../../../include/agent" "$here/verifier.cpp" "${@:2}" -o "$work/$1" -ldl
}
# one_function NAME FLAG...: an object file with one function of that name
one_function() {
    "${CC:-cc}" -c -fPIC -DFUNCTION="$1" "$here/fake-openssl.c" -o "$work/$1.o" "${@:2}"
}
# expect VERDICTS LOG PROGRAM [deep]: the first line of the log that tells of a function is LOG, or there is none
expect() {
    local verdicts line
    verdicts=$(cd "$work" && VKLOG_TARGET=stderr "$build/bin/isolate" "$here/handset.sh" "$work" "./$3" \
        "$build/lib/libVpnWfOal.so" "$work" "${@:4}" 2> log) || { cat "$work/log"; failed=1; }
    line=$(grep -m1 -o "OpenSSL's .*" "$work/log") || true
    [ "$verdicts" = "$1" ] || { echo "${*:3}: $verdicts, but expected $1"; failed=1; }
    # shellcheck disable=SC2053  # a pattern
    [[ $line == $2 ]] || { echo "${*:3} logs '$line', but expected '$2'"; failed=1; }
}
replaced() {
    echo "OpenSSL's $1 is replaced by that of $2, no certificate is accepted"
}

program none
expect "$right" '' none
# What every verification goes through, called by the plug-in; and what it goes through in OpenSSL's own library.
for name in X509_verify_cert X509_check_trust; do
    one_function $name
    program exports-$name "$work/$name.o" -rdynamic
    expect "$refused" "$(replaced $name 'the program')" exports-$name
    VKLOG_LEVEL=2 expect "$refused" '' exports-$name
    expect "$right" '' exports-$name deep
    program hides-$name "$work/$name.o"
    # The linker exports what a library of the program refers to, and here there is none.
    expect "$right" '' hides-$name
done

# All of OpenSSL.
if [ -e "$("${CC:-cc}" -print-file-name=libcrypto.a)" ]; then
    # Some distributions do not say where the libraries for its compression come from.
    read -ra whole <<<"-rdynamic -Wl,--whole-archive -l:libcrypto.a -Wl,--no-whole-archive -Wl,--unresolved-symbols=ignore-all"
    program static "${whole[@]}"
    expect "$refused" "$(replaced '*' 'the program')" static
    expect "$right" '' static deep
    program excluded -Wl,--exclude-libs,ALL "${whole[@]}"
    expect "$right" '' excluded
else
    echo 'not tried: there is no libcrypto.a here'
fi

# The same library, also in a program at a fixed address, which has entries of its own for functions.
program shared -DWITH_OPENSSL -lcrypto
expect "$right" '' shared
program fixed -DWITH_OPENSSL -no-pie -fno-pie -lcrypto
if [ "$(uname -m)" = x86_64 ]; then
    readelf -W --dyn-syms "$work/fixed" | awk '$8 ~ /^X509_free/ && $2 !~ /^0+$/ { found = 1 } END { exit !found }' ||
        { echo 'fixed has no entry for X509_free'; failed=1; }
fi
expect "$right" '' fixed

# A library of the program: without versions its names come first, with those of an older OpenSSL they do not.
"${CC:-cc}" -shared -o "$work/libunversioned.so" "$work/X509_verify_cert.o"
program unversioned -L"$work" -Wl,--no-as-needed -lunversioned -Wl,-rpath,"$work"
expect "$refused" "$(replaced X509_verify_cert "$work/libunversioned.so")" unversioned
echo 'OPENSSL_1_1_0 { global: X509_verify_cert; gCallsOfProgram; };' > "$work/older.map"
"${CC:-cc}" -shared -o "$work/libolder.so" "$work/X509_verify_cert.o" -Wl,--version-script="$work/older.map"
program older -L"$work" -Wl,--no-as-needed -lolder -Wl,-rpath,"$work"
expect "$right" '' older
exit $failed
