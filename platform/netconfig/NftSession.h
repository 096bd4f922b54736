// SPDX-License-Identifier: Apache-2.0
//
// Talking with nftables of the kernel. What it opens stays open, as closing right after a change waits for the kernel
// to clean up (5 to 15 ms); it is opened anew only when the calling thread has moved to another network namespace, and
// in a forked process, whose parent would see the answers.
// Used under the library's one mutex. Failures throw a RequestError with the key "nftables".
#ifndef VKNETCONFIG_NFTSESSION_H
#define VKNETCONFIG_NFTSESSION_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "handles/Mnl.h"
#include "handles/Nftables.h"

namespace vknetconfig {

enum class TableState { absent, ours, foreign };

class NftSession {
public:
    /// Opens what requests need, so that the first one need not wait for it. Failures are kept for that one.
    void warmUp() noexcept;

    /// What the table of this name of the family inet is: ours bears the mark.
    TableState stateOf(const std::string& table);

    /// Runs commands as one transaction: all of them take effect, or none.
    void run(const std::string& commands);

    /// True when nft would take the commands, as far as it can tell without running them.
    bool wouldTake(const std::string& commands);

private:
    void open();
    /// Why nft refuses the commands; empty when it took them.
    std::string refusal(const std::string& commands);

    NftContextPtr mContext;
    MnlSocketPtr mSocket;
    ino_t mNamespace = 0;
    pid_t mProcess = 0;
    unsigned mSequence = 0;
};

/// True when the user data of a table holds a comment that is our mark. `bytes` is what the kernel hands out.
bool bearsMark(std::string_view bytes);

}  // namespace vknetconfig

#endif
