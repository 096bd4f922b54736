// SPDX-License-Identifier: Apache-2.0
#include "NftSession.h"

#include <netinet/in.h>  // before the kernel's header of the same names

#include <dirent.h>
#include <fcntl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>

#include "FirewallText.h"
#include "RequestError.h"
#include "handles/Stdio.h"

namespace vknetconfig {

namespace {

constexpr std::size_t answerSize = 8192;  // as libmnl recommends
constexpr int longestSilence = 5000;      // milliseconds; the kernel answers while it is asked

[[noreturn]] void fail(const std::string& what, int error)
{
    throw systemError("nftables", what, error);
}

ino_t networkNamespace()
{
    struct stat status {};
    if (stat("/proc/thread-self/ns/net", &status) != 0) fail("network namespace", errno);
    return status.st_ino;
}

bool isNetfilterSocket(int file)
{
    int protocol = 0;
    int domain = 0;
    socklen_t size = sizeof protocol;
    return getsockopt(file, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_NETLINK &&
           getsockopt(file, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 && protocol == NETLINK_NETFILTER;
}

std::set<int> netfilterSockets()
{
    std::set<int> sockets;
    const DirPtr folder(opendir("/proc/self/fd"));
    if (!folder) return sockets;
    while (const dirent* found = readdir(folder.get())) {
        int file = -1;
        std::from_chars(found->d_name, found->d_name + std::strlen(found->d_name), file);
        if (file >= 0 && isNetfilterSocket(file)) sockets.insert(file);
    }
    return sockets;
}

MnlSocketPtr newSocket()
{
    MnlSocketPtr socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) fail("open", errno);
    return socket;
}

// libnftables opens its socket without close-on-exec and does not hand it out, so it is found by what is new. It ends
// the process when it gets none, so one is tried first.
NftContextPtr newContext()
{
    newSocket();
    const std::set<int> before = netfilterSockets();
    NftContextPtr context(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!context) fail("open", ENOMEM);
    for (const int file : netfilterSockets()) {
        if (before.count(file) == 0) fcntl(file, F_SETFD, FD_CLOEXEC);
    }
    // Without buffers it would write to the standard output and error of the process.
    if (nft_ctx_buffer_output(context.get()) != 0 || nft_ctx_buffer_error(context.get()) != 0) fail("open", ENOMEM);
    return context;
}

// "Error: Could not process rule: Operation not permitted" and the place of it -> "Operation not permitted".
std::string firstReason(const char* output)
{
    std::string_view text(output != nullptr ? output : "");
    text = text.substr(0, text.find('\n'));
    for (const std::string_view before : {"Error: ", "Could not process rule: "}) {
        const std::size_t place = text.find(before);
        if (place != std::string_view::npos) text.remove_prefix(place + before.size());
    }
    return text.empty() ? "refused without a reason" : std::string(text);
}

// Callback of mnl_attr_parse().
int lookForMark(const nlattr* attribute, void* state)
{
    if (mnl_attr_get_type(attribute) != NFTA_TABLE_USERDATA) return MNL_CB_OK;
    const auto* const bytes = static_cast<const char*>(mnl_attr_get_payload(attribute));
    if (bearsMark({bytes, mnl_attr_get_payload_len(attribute)})) *static_cast<TableState*>(state) = TableState::ours;
    return MNL_CB_OK;
}

}  // namespace

bool bearsMark(std::string_view bytes)
{
    // Fields of one byte type, one byte length, value. The comment is of type 0 and ends with a NUL.
    while (bytes.size() >= 2) {
        const char type = bytes[0];
        const std::size_t length = static_cast<unsigned char>(bytes[1]);
        bytes.remove_prefix(2);
        if (length > bytes.size()) return false;
        if (type == 0) return bytes.substr(0, length) == std::string_view(tableMark.data(), tableMark.size() + 1);
        bytes.remove_prefix(length);
    }
    return false;
}

void NftSession::open()
{
    const ino_t current = networkNamespace();
    if (mContext && mSocket && mNamespace == current && mProcess == getpid()) return;
    mContext = newContext();
    mSocket = newSocket();
    mNamespace = current;
    mProcess = getpid();
}

void NftSession::warmUp() noexcept
{
    try {
        open();
    } catch (const std::exception&) {
        mContext.reset();  // told to the first request, which tries again
    }
}

TableState NftSession::stateOf(const std::string& table)
{
    open();
    alignas(nlmsghdr) char buffer[answerSize];
    nlmsghdr* const request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETTABLE;
    request->nlmsg_flags = NLM_F_REQUEST;
    const unsigned sequence = request->nlmsg_seq = ++mSequence;
    auto* const head = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
    head->nfgen_family = NFPROTO_INET;
    head->version = NFNETLINK_V0;
    mnl_attr_put_strz(request, NFTA_TABLE_NAME, table.c_str());
    if (mnl_socket_sendto(mSocket.get(), request, request->nlmsg_len) < 0) fail("send", errno);
    while (true) {
        pollfd waiting{mnl_socket_get_fd(mSocket.get()), POLLIN, 0};
        const int ready = poll(&waiting, 1, longestSilence);
        if (ready == 0) fail("receive", ETIMEDOUT);
        if (ready < 0 && errno == EINTR) continue;
        int count = static_cast<int>(mnl_socket_recvfrom(mSocket.get(), buffer, answerSize));
        if (count < 0) fail("receive", errno);
        const auto* answer = reinterpret_cast<const nlmsghdr*>(buffer);
        if (!mnl_nlmsg_ok(answer, count) || answer->nlmsg_seq != sequence) continue;
        if (answer->nlmsg_type != NLMSG_ERROR) {
            TableState state = TableState::foreign;
            mnl_attr_parse(answer, sizeof(nfgenmsg), lookForMark, &state);
            return state;
        }
        if (answer->nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) fail("receive", EBADMSG);
        const int error = -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(answer))->error;
        if (error == ENOENT) return TableState::absent;
        fail("the kernel", error);
    }
}

std::string NftSession::refusal(const std::string& commands)
{
    const int result = nft_run_cmd_from_buffer(mContext.get(), commands.c_str());
    nft_ctx_get_output_buffer(mContext.get());  // taking it empties it
    const char* const output = nft_ctx_get_error_buffer(mContext.get());
    return result == 0 ? std::string() : firstReason(output);
}

void NftSession::run(const std::string& commands)
{
    open();
    const std::string reason = refusal(commands);
    if (!reason.empty()) throw RequestError("nftables", reason);
}

bool NftSession::wouldTake(const std::string& commands)
{
    open();
    nft_ctx_set_dry_run(mContext.get(), true);
    const bool taken = refusal(commands).empty();
    nft_ctx_set_dry_run(mContext.get(), false);
    return taken;
}

}  // namespace vknetconfig
