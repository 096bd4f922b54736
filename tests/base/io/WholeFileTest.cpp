// SPDX-License-Identifier: Apache-2.0
#include "io/WholeFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "handles/UniqueFd.h"

namespace {

using wfoal::readWhole;
using wfoal::writeWhole;

constexpr char path[] = "/tmp/whole";

std::string longText()
{
    std::string text;
    while (text.size() < 300000)
        text += std::to_string(text.size()) + '\n';
    return text;
}

TEST(WholeFileTest, AFileOfSeveralPartsIsReadToItsEnd)
{
    std::ofstream(path) << longText();
    const auto text = readWhole(path);
    ASSERT_TRUE(text);
    EXPECT_EQ(*text, longText());
}

TEST(WholeFileTest, NoMoreIsReadThanIsAllowed)
{
    std::ofstream(path) << longText();
    for (const std::size_t most : {std::size_t{0}, std::size_t{1}, std::size_t{65536}, std::size_t{100000}}) {
        EXPECT_EQ(*readWhole(path, most), longText().substr(0, most));
    }
}

TEST(WholeFileTest, AnEmptyFileIsNoFault)
{
    std::ofstream(path) << "";
    const auto text = readWhole(path);
    ASSERT_TRUE(text);
    EXPECT_EQ(*text, "");
}

TEST(WholeFileTest, TheReasonIsTheTextOfErrno)
{
    std::filesystem::remove(path);
    EXPECT_EQ(readWhole(path).reason(), "No such file or directory");
    EXPECT_EQ(readWhole("/tmp").reason(), "Is a directory");
    EXPECT_EQ(writeWhole(-1, "x").reason(), "Bad file descriptor");
}

TEST(WholeFileTest, WhatDoesNotFitAPipeIsWrittenWhileItIsRead)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    bool isWritten = false;
    std::thread writer([&] {
        isWritten = static_cast<bool>(writeWhole(writing.get(), longText()));
        writing.reset();
    });
    const auto text = readWhole(reading.get());
    writer.join();
    EXPECT_TRUE(isWritten);
    ASSERT_TRUE(text);
    EXPECT_EQ(*text, longText());
}

}  // namespace
