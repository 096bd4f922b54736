// SPDX-License-Identifier: Apache-2.0
#include "netlink/NetlinkAnswer.h"

#include <cerrno>

namespace wfoal {

namespace {

constexpr int longestSilence = 5000;  // milliseconds; the kernel answers while it is asked

// A dump that failed in the middle ends with the reason.
int errorOfEnd(const nlmsghdr& message)
{
    return message.nlmsg_len < sizeof message + sizeof(int) ? 0 : errorOf(message);
}

class Answer {
public:
    Answer(std::uint32_t sequence, const std::function<void(const nlmsghdr&)>& visit)
        : mSequence(sequence), mVisit(visit)
    {
    }

    void take(const nlmsghdr& message)
    {
        if (message.nlmsg_seq != mSequence || mHasEnded) return;
        if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) mIsWhole = false;
        switch (message.nlmsg_type) {
        case NLMSG_NOOP: break;
        case NLMSG_ERROR: end(errorOf(message)); break;
        case NLMSG_DONE: end(errorOfEnd(message)); break;
        case NLMSG_OVERRUN: mIsWhole = false; break;
        default:
            mVisit(message);
            if ((message.nlmsg_flags & NLM_F_MULTI) == 0) end(0);
        }
    }
    void loseSome() { mIsWhole = false; }
    bool isWhole() const { return mIsWhole; }
    bool hasEnded() const { return mHasEnded; }
    int result() const { return mError == 0 && !mIsWhole ? EINTR : mError; }

private:
    void end(int error)
    {
        mHasEnded = true;
        mError = error;
    }

    std::uint32_t mSequence;
    const std::function<void(const nlmsghdr&)>& mVisit;
    int mError = 0;
    bool mHasEnded = false;
    bool mIsWhole = true;
};

}  // namespace

int receiveAnswer(int socket, NetlinkDatagram& datagram, std::uint32_t sequence,
                  const std::function<void(const nlmsghdr&)>& visit)
{
    Answer answer(sequence, visit);
    while (!answer.hasEnded()) {
        // When a part is lost, the end may be lost too.
        switch (datagram.receive(socket, answer.isWhole() ? longestSilence : 0)) {
        case NetlinkReceived::Failed: return errno;
        case NetlinkReceived::Nothing: return answer.isWhole() ? ETIMEDOUT : EINTR;
        case NetlinkReceived::Lost: answer.loseSome(); break;
        case NetlinkReceived::Datagram:
            while (const nlmsghdr* message = datagram.next())
                answer.take(*message);
        }
    }
    return answer.result();
}

}  // namespace wfoal
