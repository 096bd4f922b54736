// SPDX-License-Identifier: Apache-2.0
//
// Owners of C library streams and directories.
#ifndef HANDLES_STDIO_H
#define HANDLES_STDIO_H

#include <dirent.h>

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

struct PipeCloser {
    void operator()(std::FILE* pipe) const { ::pclose(pipe); }
};
using PipePtr = std::unique_ptr<std::FILE, PipeCloser>;

#endif
