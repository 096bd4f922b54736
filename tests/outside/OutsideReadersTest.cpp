// SPDX-License-Identifier: Apache-2.0
//
// Texts that the tests of Python's library feed its readers of JSON and of addresses, with the verdicts: our readers
// agree, or differ for a reason that is named here. The JSON texts hold those of json.org's checker.
#include <gmock/gmock.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "json/JsonError.h"
#include "json/StrictJson.h"
#include "net/Ipv4.h"
#include "net/Ipv6.h"

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

const fs::path folder = fs::path(WFOAL_SOURCE_DIR) / "build/vectors/python";

struct Text {
    bool isGood = false;
    std::string text;
    std::string form;  ///< as Python writes what it has read; empty where that is not recorded
};

std::string fromHex(const std::string& digits)
{
    std::string text;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        text += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return text;
}

std::vector<Text> recorded(const std::string& name)
{
    std::vector<Text> texts;
    std::ifstream file(folder / (name + ".txt"));
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string verdict;
        std::string text;
        std::string form;
        words >> verdict >> text >> form;
        texts.push_back({verdict == "ok", fromHex(text), fromHex(form)});
    }
    return texts;
}

/// Why we differ on some texts.
struct Reason {
    const char* text;
    bool (*explains)(const Text& text);
};

/// What our reader says: it reads the text, reads it as something else than Python does, or refuses it.
enum class Verdict { good, different, bad };

template <class Read>
void compare(const std::string& name, Read read, const std::vector<Reason>& reasons)
{
    const std::vector<Text> texts = recorded(name);
    ASSERT_GE(texts.size(), 150u) << name;
    std::vector<std::size_t> counts(reasons.size());
    std::vector<std::string> unexplained;
    std::size_t agreed = 0;
    for (const Text& text : texts) {
        const Verdict verdict = read(text);
        if (verdict == (text.isGood ? Verdict::good : Verdict::bad)) {
            ++agreed;
            continue;
        }
        std::size_t reason = 0;
        while (reason < reasons.size() && !reasons[reason].explains(text))
            ++reason;
        if (reason < reasons.size()) {
            ++counts[reason];
        } else {
            unexplained.push_back((text.isGood ? "only Python reads: " : "only we read: ") + text.text.substr(0, 200));
        }
    }
    std::cout << name << ": " << agreed << " of " << texts.size() << " agree\n";
    for (std::size_t reason = 0; reason < reasons.size(); ++reason) {
        std::cout << "    " << counts[reason] << ": " << reasons[reason].text << '\n';
        EXPECT_GT(counts[reason], 0u) << reasons[reason].text << ": explains nothing any more";
    }
    EXPECT_THAT(unexplained, IsEmpty());
}

bool contains(const Text& text, const char* part)
{
    return text.text.find(part) != std::string::npos;
}

std::string afterSlash(const Text& text)
{
    const auto slash = text.text.find('/');
    return slash == std::string::npos ? "" : text.text.substr(slash + 1);
}

const Reason zone{"we take no zone of an interface",
                  [](const Text& text) { return text.isGood && contains(text, "%"); }};
const Reason leadingZeros{"we take no leading zeros in a prefix length", [](const Text& text) {
                              const std::string prefix = afterSlash(text);
                              return text.isGood && prefix.size() > 1 && prefix.front() == '0' &&
                                     prefix.find('.') == std::string::npos;
                          }};
const Reason hostMask{"we take no inverted netmask", [](const Text& text) {
                          const std::string mask = afterSlash(text);
                          return text.isGood && mask.find('.') != std::string::npos && mask.compare(0, 3, "255") != 0;
                      }};
const Reason notFinite{"Infinity and NaN are no JSON",
                       [](const Text& text) { return contains(text, "Infinity") || contains(text, "NaN"); }};
const Reason tooLarge{"we take no number that no double can hold", [](const Text& text) {
                          return contains(text, "E666") || text.text.find_first_not_of("1") == std::string::npos;
                      }};

Verdict readAddress(const Text& text)
{
    const auto address = wfoal::parseDottedAddress(text.text);
    if (!address) return Verdict::bad;
    return !text.isGood || wfoal::dotted(*address) == text.form ? Verdict::good : Verdict::different;
}

Verdict readNetwork(const Text& text)
{
    const auto network = wfoal::parseNetwork(text.text);
    if (!network) return Verdict::bad;
    return !text.isGood || wfoal::withPrefix(*network) == text.form ? Verdict::good : Verdict::different;
}

// Python writes no dots in these, so both forms are read.
Verdict readAddress6(const Text& text)
{
    const auto address = wfoal::parseIpv6Address(text.text);
    if (!address) return Verdict::bad;
    const auto expected = wfoal::parseIpv6Address(text.form);
    return !text.isGood || (expected && std::memcmp(&*expected, &*address, sizeof *address) == 0) ? Verdict::good
                                                                                                  : Verdict::different;
}

Verdict readNetwork6(const Text& text)
{
    const auto network = wfoal::parseIpv6Network(text.text);
    if (!network) return Verdict::bad;
    if (!text.isGood) return Verdict::good;
    const auto expected = wfoal::parseIpv6Network(text.form);
    return expected && *expected == *network ? Verdict::good : Verdict::different;
}

Verdict readJson(const Text& text)
{
    try {
        const wfoal::JsonDocument document(text.text.c_str());
        return Verdict::good;
    } catch (const wfoal::JsonError&) {
        return Verdict::bad;
    }
}

class OutsideReadersTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(folder)) {
            GTEST_SKIP() << "no texts of Python's tests; tests/support/fetch-vectors.sh build/vectors fetches them";
        }
    }
};

TEST_F(OutsideReadersTest, Ipv4Addresses)
{
    compare("IPv4Address", readAddress, {});
}

TEST_F(OutsideReadersTest, Ipv4Networks)
{
    compare("IPv4Interface", readNetwork, {leadingZeros, hostMask});
    compare("IPv4Network", readNetwork, {leadingZeros, hostMask});
}

TEST_F(OutsideReadersTest, Ipv6Addresses)
{
    compare("IPv6Address", readAddress6, {zone});
}

TEST_F(OutsideReadersTest, Ipv6Networks)
{
    compare("IPv6Interface", readNetwork6, {zone, leadingZeros});
    compare("IPv6Network", readNetwork6, {zone, leadingZeros});
}

TEST_F(OutsideReadersTest, Json)
{
    compare("json", readJson, {notFinite, tooLarge});
}

}  // namespace
