// SPDX-License-Identifier: Apache-2.0
//
// The bytes of routing netlink messages, built piece by piece, so that a test can also build what no kernel sends.
#ifndef WFOAL_TEST_ROUTEMESSAGES_H
#define WFOAL_TEST_ROUTEMESSAGES_H

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <string>

namespace testsupport {

/// The bytes of a plain value.
template <typename T>
std::string bytesOf(const T& value)
{
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

/// The four bytes of a dotted address.
std::string addressBytes(const char* dotted);

/// An attribute, padded; `claimedLength` stands in its header when it is not negative.
std::string attribute(std::uint16_t type, const std::string& value, int claimedLength = -1);

/// A message of any type, padded.
std::string message(std::uint16_t type, const std::string& body, std::int64_t claimedLength = -1);

/// What stands before the attributes of a route.
rtmsg routeHeader(std::uint8_t prefixLength, std::uint8_t table = RT_TABLE_MAIN);

/// RTM_NEWROUTE.
std::string routeMessage(const rtmsg& header, const std::string& attributes = "");

/// A default route.
std::string defaultRoute(std::uint32_t outputIndex, std::uint32_t priority, const char* gateway = nullptr);

std::string doneMessage();
std::string errorMessage(int error);

/// "0a 0b …" or "0a0b…" to bytes.
std::string fromHex(const std::string& hex);

/// A message of routing netlink in hex, as a little-endian machine has it, in the byte order of this machine.
std::string fromCapture(const std::string& hex);

}  // namespace testsupport

#endif
