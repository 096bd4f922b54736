// SPDX-License-Identifier: Apache-2.0
//
// Stand-ins for where the log goes: the sockets of journald and syslog, and stderr.
#ifndef WFOAL_TEST_LOGCAPTURE_H
#define WFOAL_TEST_LOGCAPTURE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "handles/UniqueFd.h"

/// A datagram socket at a path, as journald and syslog daemons have one. The path is gone with the object.
class DatagramDaemon {
public:
    explicit DatagramDaemon(const std::string& path) : mPath(path)
    {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        mSocket.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error(path + ": " + std::strerror(errno));
        }
    }
    ~DatagramDaemon() { unlink(mPath.c_str()); }
    DatagramDaemon(const DatagramDaemon&) = delete;
    DatagramDaemon& operator=(const DatagramDaemon&) = delete;

    /// The next message, also one that came as a memory file because it was too long; empty when there is none.
    std::string receive()
    {
        const ssize_t waiting = recv(mSocket.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (waiting < 0) return {};
        std::string text(static_cast<std::size_t>(waiting), '\0');
        std::array<char, CMSG_SPACE(sizeof(int))> control{};
        iovec part{text.data(), text.size()};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
        const ssize_t length = recvmsg(mSocket.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (length < 0) return {};
        text.resize(static_cast<std::size_t>(length));
        const cmsghdr* attached = CMSG_FIRSTHDR(&header);
        return attached != nullptr ? contentOf(attached) : text;
    }

private:
    static std::string contentOf(const cmsghdr* attached)
    {
        int number = -1;
        std::memcpy(&number, CMSG_DATA(attached), sizeof number);
        const UniqueFd file(number);
        struct stat status {};
        if (fstat(file.get(), &status) != 0) return "no status";
        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        if (pread(file.get(), text.data(), text.size(), 0) != status.st_size) return "short read";
        return text;
    }

    std::string mPath;
    UniqueFd mSocket;
};

/// An empty /dev for the time of a test, so that there can be a /dev/log.
class PrivateDevFolder {
public:
    PrivateDevFolder()
    {
        if (mount("private", "/dev", "tmpfs", MS_NOSUID, nullptr) != 0) throw std::runtime_error("mount on /dev");
    }
    ~PrivateDevFolder() { umount("/dev"); }
    PrivateDevFolder(const PrivateDevFolder&) = delete;
    PrivateDevFolder& operator=(const PrivateDevFolder&) = delete;
};

/// What is written to stderr while the object lives.
class StderrCapture {
public:
    StderrCapture() : mBefore(dup(STDERR_FILENO)), mFile(memfd_create("stderr", MFD_CLOEXEC))
    {
        dup2(mFile.get(), STDERR_FILENO);
    }
    ~StderrCapture() { dup2(mBefore.get(), STDERR_FILENO); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string text() const
    {
        std::string content(static_cast<std::size_t>(lseek(mFile.get(), 0, SEEK_END)), '\0');
        if (pread(mFile.get(), content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) return {};
        return content;
    }

private:
    UniqueFd mBefore;
    UniqueFd mFile;
};

#endif
