// SPDX-License-Identifier: Apache-2.0
//
// Sizes as people read them, and a bar that shows on a terminal how far a large transfer has come.
#ifndef VPNOALCTL_PROGRESS_H
#define VPNOALCTL_PROGRESS_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace vpnoalctl {

/// "999 bytes", "1.5 KiB", "100 MiB".
std::string plainSize(std::uint64_t bytes);

/// One line on `stream`, drawn again as the transfer comes on and wiped at the end of the scope. Transfers of up to
/// 8 MiB show nothing.
class Progress {
public:
    static constexpr std::uint64_t threshold = std::uint64_t{8} << 20;

    /// `total` in bytes; 0 when it is not known. Shown when `wanted` and the stream, which is not owned, is a terminal.
    Progress(std::FILE* stream, const std::string& label, std::uint64_t total, bool wanted);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void advance(std::uint64_t bytes);

    /// What is drawn: the line without its carriage return.
    static std::string text(const std::string& label, std::uint64_t done, std::uint64_t total);

private:
    std::FILE* mStream;
    std::string mLabel;
    std::uint64_t mTotal;
    std::uint64_t mDone = 0;
    bool mShown;
    std::string mDrawn;
};

}  // namespace vpnoalctl

#endif
