#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# abi-changes.sh: makes each kind of change to a copy of the headers, and abi.sh must see it and name it.
set -euo pipefail
here=$(dirname "$(realpath "$0")") pointer=$(($(getconf LONG_BIT) / 8)) root=$(realpath "$(dirname "$0")/../..")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

# changed NAME agent|platform HEADER EXPECTED SED_SCRIPT: EXPECTED is a line of the difference.
changed() {
    local name=$1 api=$2 header=$3 expected=$4 script=$5 folder=include/agent/kest status=0
    [ "$api" = agent ] || folder=platform/include
    rm -rf "$work/headers"
    cp -r "$root/$folder" "$work/headers"
    sed -i -E "$script" "$work/headers/$header"
    if cmp -s "$root/$folder/$header" "$work/headers/$header"; then
        echo "$name: nothing was changed by $script"
        failed=1
        return
    fi
    "$here/abi.sh" "$api" "$work/headers" > "$work/difference" 2>&1 || status=$?
    [ $status != 77 ] || { tail -1 "$work/difference"; exit 77; }
    if [ $status = 0 ]; then
        echo "$name: not seen"
        failed=1
    elif ! grep -qF -- "$expected" "$work/difference" || ! grep -q 'abi.sh --write' "$work/difference"; then
        echo "$name: the difference does not say '$expected':"
        cat "$work/difference"
        failed=1
    fi
}

# unchanged ABI.SH_ARGUMENT...: a cross compiler that is not installed is named; the other architectures are checked all the same.
unchanged() {
    local status=0
    "$here/abi.sh" "$@" || status=$?
    [ $status = 0 ] || [ $status = 77 ] || failed=1
}
for architecture in amd64 arm64 armhf i386 s390x; do
    unchanged --arch $architecture agent
    unchanged --arch $architecture platform
done

# Two lines trade places: each is replaced by the other.
changed "two slots swapped" agent SystemPlugin.h '+    slot 9: PluginResult RestoreSystemConfiguration()' \
    's/ApplyConfiguration\(\) = 0/Other() = 0/; s/RestoreSystemConfiguration\(\) = 0/ApplyConfiguration() = 0/; s/Other\(\) = 0/RestoreSystemConfiguration() = 0/'
changed "a slot added in the middle" agent CertPlugin.h '+    slot 5: PluginResult AddTrust()' \
    's/^(.*virtual.*AddVerificationCert\(.*)$/    virtual PluginResult AddTrust() = 0;\n\1/'
changed "a slot added at the end" agent SocketPlugin.h '+    slot 6: PluginResult Unbind()' \
    's/^};$/    virtual PluginResult Unbind() = 0;\n};/'
changed "a slot removed" agent SystemPluginCB.h '-    slot 1: void OnPowerResume()' '/OnPowerResume/d'
changed "the destructor moved" agent ClientCertHandle.h '+    slot 2: PluginResult GetCertDer(' \
    '/~ClientCertHandle/d; s/^public:/public:\n    virtual ~ClientCertHandle() {}/'
changed "the destructor no longer virtual" agent NetworkInterface.h '+    no slot: ~KEST_NetworkInterface' 's/virtual ~/~/'
changed "an operation with another argument" agent StoragePlugin.h '+    slot 9: PluginResult SimpleUnmapFile(void*, unsigned int)' \
    's/SimpleUnmapFile\(void\* address\)/SimpleUnmapFile(void* address, unsigned int size)/'
changed "an operation with another result" agent SystemPluginRoute.h '+    slot 11: int GetMetric()' \
    's/virtual unsigned int GetMetric/virtual int GetMetric/'
changed "a field added" agent StoragePlugin.h '+struct KEST_FileInformation, 24 bytes' \
    's/^(.*std::int64_t size;.*)$/\1\n    std::int64_t changed;/'
changed "two fields swapped" agent Plugin.h '+    at 0: uint32_t count' \
    's/const AvailableInterfaceEntry\* entries;/std::uint32_t kept;/; s/std::uint32_t count;/const AvailableInterfaceEntry* entries;/; s/std::uint32_t kept;/std::uint32_t count;/'
changed "a class with a field" agent SocketPlugin.h "+class KEST_SocketPlugin : Plugin, $((2 * pointer)) bytes" \
    's/^};$/    int descriptor = -1;\n};/'
changed "an enumerator with another value" agent Plugin.h '+    PLUGIN_BUFFER_TOO_SMALL = -2' 's/(TOO_SMALL = -)3/\12/'
changed "an enumerator added" agent StoragePlugin.h '+    LOCATION_CACHE = 7' 's/(LOCATION_TEMP = 6)/\1,\n    LOCATION_CACHE = 7/'
changed "an enumeration of another size" agent SystemPlugin.h '+enum KEST_FilterAction, 1 bytes' \
    's/(KEST_FilterAction :) int/\1 unsigned char/'
changed "the results of another type" agent Plugin.h '+type int64_t PluginResult' 's/typedef std::int32_t PluginResult/typedef std::int64_t PluginResult/'
changed "another identifier" agent Plugin.h '+    KEST_SOCKET_INTERFACE "com.norva.wayfold.kest.sockets"' 's/(kest\.socket)"/\1s"/'
changed "another signature of an exported function" agent Plugin.h '+    Plugin* CreatePlugin(const char*, int)' \
    's/^Plugin\* CreatePlugin\(const char\* identifier\)/Plugin* CreatePlugin(const char* identifier, int version)/'

changed "a field of the error record" platform quorservice.h '+    at 4: int severity' 's/^(    int error_code;.*)$/\1\n    int severity;/'
changed "an error code" platform quorservice.h '+    QS_ERROR_BAD_HANDLE = -10004' 's/(QS_ERROR_BAD_HANDLE = )-10002/\1-10004/'
changed "a callback with another argument" platform quorservice.h '+type bool (*QSReplyCallback)(QSHandle*, void*)' \
    's/(QSReplyCallback\)\(QSHandle\* handle, )QSMessage\* message, /\1/'
changed "the threshold of another size" platform VkLogLib.h '+    at 0: int64_t level' 's/int32_t level;/int64_t level;/'
changed "a function added" platform powerd.h '+    _Bool PowerdVersion(int)' 's/^(bool PowerdClientDeinit)/bool PowerdVersion(int which);\n\1/'
changed "a function with another argument" platform VkNetConfigLib.h '+    int CmDelInterfaceCfg(const char*, int)' \
    's/(CmDelInterfaceCfg\(const char\* ifName)/\1, int force/'
exit $failed
