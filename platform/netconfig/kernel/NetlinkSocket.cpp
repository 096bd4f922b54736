// SPDX-License-Identifier: Apache-2.0
#include "kernel/NetlinkSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "RequestError.h"
#include "netlink/NetlinkAnswer.h"

namespace vknetconfig {

namespace {

using wfoal::NetlinkReceived;

constexpr std::size_t largestMessage = 1024;
constexpr std::size_t batchSize = std::size_t{64} * 1024;  // well under the smallest usual send buffer
constexpr int receiveBuffer = 4 * 1024 * 1024;
constexpr int longestSilence = 5000;  // milliseconds; the kernel answers while it is asked
// While addresses change all the time, many dumps in a row may be interrupted.
constexpr auto longestRepetition = std::chrono::seconds(3);

}  // namespace

// The attributes follow the error directly, because the request's payload is not echoed.
std::string kernelText(const nlmsghdr* message)
{
    std::string text;
    if ((message->nlmsg_flags & NLM_F_ACK_TLVS) == 0) return text;
    const auto keep = [](const nlattr* attribute, void* into) -> int {
        if (mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG &&
            mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
            *static_cast<std::string*>(into) = mnl_attr_get_str(attribute);
        }
        return MNL_CB_OK;
    };
    mnl_attr_parse(message, sizeof(nlmsgerr), keep, &text);
    return text;
}

std::string NetlinkFailure::reason() const
{
    const std::string general = std::strerror(error);
    return text.empty() ? general : text + " (" + general + ")";
}

void NetlinkSocket::fail(const char* what) const
{
    throw systemError(mKey, what, errno);
}

mnl_socket* NetlinkSocket::handle()
{
    if (mSocket) return mSocket.get();
    MnlSocketPtr socket(mnl_socket_open2(mProtocol, SOCK_CLOEXEC));
    if (!socket) fail("open");
    if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) fail("bind");
    int on = 1;
    if (mnl_socket_setsockopt(socket.get(), NETLINK_CAP_ACK, &on, sizeof on) < 0) fail("set up");
    // Optional features: the kernel's own explanations, dumps filtered by the kernel, room for many errors.
    mnl_socket_setsockopt(socket.get(), NETLINK_EXT_ACK, &on, sizeof on);
    mnl_socket_setsockopt(socket.get(), NETLINK_GET_STRICT_CHK, &on, sizeof on);
    setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
    mSocket = std::move(socket);
    return mSocket.get();
}

void NetlinkSocket::followNamespace(const std::string& networkNamespace)
{
    if (networkNamespace == mNamespace) return;
    mSocket.reset();
    mNamespace = networkNamespace;
}

int NetlinkSocket::descriptor()
{
    return mnl_socket_get_fd(handle());
}

void NetlinkSocket::send(const void* messages, std::size_t size)
{
    while (mnl_socket_sendto(handle(), messages, size) < 0) {
        if (errno != EINTR) fail("send");
    }
}

NetlinkReceived NetlinkSocket::receive(bool isLossy)
{
    const NetlinkReceived received = mDatagram.receive(descriptor(), isLossy ? 0 : longestSilence);
    if (received == NetlinkReceived::Failed) fail("receive");
    return received;
}

int NetlinkSocket::ask(nlmsghdr* request, const std::function<void(const nlmsghdr*)>& visit)
{
    request->nlmsg_flags = static_cast<std::uint16_t>(request->nlmsg_flags | NLM_F_REQUEST);
    const auto end = std::chrono::steady_clock::now() + longestRepetition;
    while (true) {
        request->nlmsg_seq = nextSequence();
        send(request, request->nlmsg_len);
        // Kept until the answer is known to be complete. Rounded up, because libmnl reads up to there.
        std::vector<std::vector<char>> answer;
        const int error =
            wfoal::receiveAnswer(descriptor(), mDatagram, request->nlmsg_seq, [&answer](const nlmsghdr& message) {
                const char* const bytes = reinterpret_cast<const char*>(&message);
                answer.emplace_back(bytes, bytes + MNL_ALIGN(message.nlmsg_len));
            });
        if (error == ETIMEDOUT) throw RequestError(mKey, "the kernel does not answer");
        if (error == EINTR && std::chrono::steady_clock::now() < end) continue;
        if (error == EINTR) return error;
        for (const auto& message : answer)
            visit(reinterpret_cast<const nlmsghdr*>(message.data()));
        return error;
    }
}

NetlinkBatch::NetlinkBatch(NetlinkSocket& socket, std::initializer_list<int> tolerated)
    : mSocket(socket), mTolerated(tolerated), mFirstSequence(socket.mSequence + 1)
{
}

nlmsghdr* NetlinkBatch::add(std::uint16_t type, std::uint16_t flags)
{
    if (mLast != nullptr && mBuffer.size() + MNL_ALIGN(mLast->nlmsg_len) + largestMessage > batchSize) send();
    close();
    mLast = mnl_nlmsg_put_header(mBuffer.place(largestMessage));
    mLast->nlmsg_type = type;
    mLast->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    mLast->nlmsg_seq = mSocket.nextSequence();
    ++mCount;
    return mLast;
}

void NetlinkBatch::close()
{
    if (mLast == nullptr) return;
    mBuffer.add(MNL_ALIGN(mLast->nlmsg_len));
    mLast = nullptr;
}

const std::vector<NetlinkFailure>& NetlinkBatch::finish()
{
    send();
    return mFailures;
}

void NetlinkBatch::send()
{
    if (mLast == nullptr) return;
    mLast->nlmsg_flags = static_cast<std::uint16_t>(mLast->nlmsg_flags | NLM_F_ACK);
    const std::uint32_t last = mLast->nlmsg_seq;
    close();
    mSocket.send(mBuffer.data(), mBuffer.size());
    mBuffer.clear();
    // Lost answers may include the acknowledgement, but never the first error, which is the oldest answer.
    bool isLossy = false;
    bool isComplete = false;
    while (!isComplete) {
        const NetlinkReceived received = mSocket.receive(isLossy);
        if (received == NetlinkReceived::Nothing) break;
        isLossy = isLossy || received == NetlinkReceived::Lost;
        while (const nlmsghdr* message = mSocket.nextMessage()) {
            take(message);
            isComplete = isComplete || message->nlmsg_seq == last;
        }
    }
    if (!isComplete && mFailures.empty()) mFailures.push_back({mCount - 1, isLossy ? ENOBUFS : ETIMEDOUT, {}});
}

void NetlinkBatch::take(const nlmsghdr* message)
{
    const std::uint32_t index = message->nlmsg_seq - mFirstSequence;
    if (message->nlmsg_type != NLMSG_ERROR || index >= mCount) return;
    const int error = wfoal::errorOf(*message);
    if (error == 0 || std::find(mTolerated.begin(), mTolerated.end(), error) != mTolerated.end()) return;
    mFailures.push_back({index, error, kernelText(message)});
}

}  // namespace vknetconfig
