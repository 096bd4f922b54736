// SPDX-License-Identifier: Apache-2.0
#include "Sweep.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>

namespace faults {

namespace {

constexpr auto longestReturn = std::chrono::seconds(20);
constexpr int repeats = 4;  // of a fault after which more is held, and of the undisturbed operation

long entriesOf(const std::string& folder)
{
    std::error_code error;
    long count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error))
        count += entry.path().empty() ? 0 : 1;
    return count;
}

long locksOf(const std::string& process)
{
    std::error_code error;
    long count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fdinfo", error)) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);)
            count += line.rfind("lock:", 0) == 0 ? 1 : 0;
    }
    return count;
}

bool isOfGlib(const Place& place)
{
    return place.function == static_cast<int>(Function::GlibMemory);
}

const char* modeOf(bool isForEver)
{
    return isForEver ? "from-then-on" : "once";
}

}  // namespace

Holdings Holdings::of(const Operation& operation)
{
    Holdings holdings;
    holdings.blocks = operation.control().blocks;
    const std::string process = "/proc/" + std::to_string(operation.process());
    holdings.descriptors = entriesOf(process + "/fd");
    holdings.threads = entriesOf(process + "/task");
    holdings.locks = locksOf(process);
    return holdings;
}

Holdings Holdings::operator-(const Holdings& other) const
{
    return {descriptors - other.descriptors, threads - other.threads, locks - other.locks, blocks - other.blocks};
}

bool Holdings::isWithin(const Holdings& other) const
{
    return descriptors <= other.descriptors && threads <= other.threads && locks <= other.locks &&
           blocks <= other.blocks;
}

std::string Holdings::text() const
{
    return std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads, " +
           std::to_string(locks) + " locks, " + std::to_string(blocks) + " blocks of memory";
}

Sweep::Sweep(const Entry& entry, Operation& operation, long dense) : mEntry(entry), mOperation(operation), mDense(dense)
{
}

int Sweep::cycle(const Disturbance& disturbance, const Place* place)
{
    mOperation.begin();
    Control& control = mOperation.control();
    control.struck = 0;
    if (place != nullptr) {
        control.callsLeft = place->number;
        control.forEver = place->isForEver;
        control.function = place->function;
    }
    int result = thrown;
    std::string what;
    try {
        result = mOperation.act();
    } catch (const std::exception& error) {
        control.function = static_cast<int>(Function::None);
        what = std::string(", an exception: ") + error.what();
    } catch (...) {
        control.function = static_cast<int>(Function::None);
        what = ", an exception";
    }
    control.function = static_cast<int>(Function::None);
    const bool isUndisturbed = control.struck == 0;
    const bool isDocumented = isUndisturbed ? result == mEntry.undisturbed : mEntry.documented.count(result) != 0;
    try {
        expect(isDocumented, "the result " + std::to_string(result) + what);
        mOperation.judge(result, {isUndisturbed, disturbance.isForEver, disturbance.isOfGlib});
    } catch (const Finding&) {
        mOperation.end();
        throw;
    }
    mOperation.end();
    return result;
}

void Sweep::warmUp()
{
    for (int round = 0; round < 3; ++round)
        cycle({}, nullptr);
    for (int round = 0; round < repeats; ++round) {
        const Holdings before = Holdings::of(mOperation);
        for (int i = 0; i < 2; ++i)
            cycle({}, nullptr);
        const Holdings kept = Holdings::of(mOperation) - before;
        mKept = {std::max(mKept.descriptors, kept.descriptors), std::max(mKept.threads, kept.threads),
                 std::max(mKept.locks, kept.locks), std::max(mKept.blocks, kept.blocks)};
    }
    std::printf("keeps %s in two calls\n", mKept.text().c_str());
}

void Sweep::report(const Place& place, const std::string& finding)
{
    std::string line = finding;
    std::replace(line.begin(), line.end(), '\n', '|');
    std::printf("finding %s %s %ld %s\n", functionNames[place.function], modeOf(place.isForEver), place.number,
                line.c_str());
}

// More may be held once, by what is made at the first need. What leaks does so each time.
void Sweep::expectNoLeak(const Place& place, const Holdings& before)
{
    if (mOperation.keepsAfter(static_cast<Function>(place.function))) return;
    Holdings allowed = mKept;
    allowed.blocks += mOperation.keptAfterFault();
    Holdings last = before;
    Holdings now = Holdings::of(mOperation);
    const Holdings first = now - last;
    for (int repeat = 0; repeat < repeats; ++repeat) {
        if ((now - last).isWithin(allowed)) return;
        last = now;
        cycle({false, place.isForEver, isOfGlib(place)}, &place);
        cycle({}, nullptr);
        now = Holdings::of(mOperation);
    }
    if (!(now - last).isWithin(allowed)) throw Finding("keeps each time: " + first.text());
}

void Sweep::expectNextCallToWork()
{
    const auto end = std::chrono::steady_clock::now() + longestReturn;
    while (true) {
        try {
            cycle({}, nullptr);
            return;
        } catch (const Finding& finding) {
            if (!mOperation.comesBack() || std::chrono::steady_clock::now() > end)
                throw Finding(std::string("the next call: ") + finding.what());
        }
        usleep(20'000);
    }
}

bool Sweep::attempt(const Place& place)
{
    std::printf("at %d %d %ld\n", place.function, place.isForEver ? 1 : 0, place.number);
    std::fflush(stdout);
    try {
        const Holdings before = Holdings::of(mOperation);
        const int result = cycle({false, place.isForEver, isOfGlib(place)}, &place);
        const bool isStruck = mOperation.control().struck != 0;
        if (!isStruck) return false;
        ++mStruck;
        if (result != mEntry.undisturbed) ++mRefused;
        expectNextCallToWork();
        expectNoLeak(place, before);
        return true;
    } catch (const Finding& finding) {
        report(place, finding.what());
        throw;
    }
}

void Sweep::runFunction(Place place)
{
    mStruck = 0;
    mRefused = 0;
    const auto end = [&](long last) {
        std::printf("end %s %s %ld %ld %ld\n", functionNames[place.function], modeOf(place.isForEver), last, mStruck,
                    mRefused);
        std::fflush(stdout);
    };
    try {
        while (attempt(place))
            place.number += std::max(1L, place.number / mDense);
    } catch (const Finding&) {
        end(place.number);
        throw;
    }
    end(place.number - 1);
}

void Sweep::run(Place place, bool isAlone)
{
    while (place.function < static_cast<int>(Function::GlibMemory) || isAlone) {
        runFunction(place);
        if (isAlone) return;
        place = place.isForEver ? Place{place.function + 1, false, 1} : Place{place.function, true, 1};
    }
}

}  // namespace faults
