// SPDX-License-Identifier: Apache-2.0
//
// Route and interface objects as an agent has them, to be filled by the plug-in.
#ifndef WFOAL_TEST_AGENTOBJECTS_H
#define WFOAL_TEST_AGENTOBJECTS_H

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "kest/NetworkInterface.h"
#include "kest/SystemPluginRoute.h"

namespace testsupport {

/// Takes the texts over, as its contract says.
class ListedRoute : public KEST_SystemPluginRoute {
public:
    void SetDestination(char* text) override { mDestination.reset(text); }
    const char* GetDestination() override { return mDestination.get(); }
    void SetGateway(char* text) override { mGateway.reset(text); }
    const char* GetGateway() override { return mGateway.get(); }
    void SetNetmask(char* text) override { mNetmask.reset(text); }
    const char* GetNetmask() override { return mNetmask.get(); }
    void SetInterface(char* text) override { mInterface.reset(text); }
    const char* GetInterface() override { return mInterface.get(); }
    void SetReservedValue(std::int32_t value) override { mReserved = value; }
    std::int32_t GetReservedValue() override { return mReserved; }
    void SetMetric(unsigned int metric) override { mMetric = metric; }
    unsigned int GetMetric() override { return mMetric; }

    bool isUntouched() const { return !mDestination && !mGateway && !mNetmask && !mInterface && mReserved == -1; }

private:
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    using Text = std::unique_ptr<char, Free>;
    Text mDestination;
    Text mGateway;
    Text mNetmask;
    Text mInterface;
    std::int32_t mReserved = -1;
    unsigned int mMetric = 0;
};

/// Copies the texts, as its contract says.
class ListedInterface : public KEST_NetworkInterface {
public:
    void SetAddress(const char* text) override { address = text; }
    void SetNetmask(const char* text) override { netmask = text; }
    void SetGateway(const char* text) override { gateway = text; }
    void SetReservedText(const char*) override { reservedTextSet = true; }
    void SetName(const char* text) override { name = text; }
    void SetReservedValue(std::int32_t value) override { reserved = value; }
    void SetReservedPair(std::int32_t first, std::int32_t second) override { pair = first | second; }

    std::string address, netmask, gateway = "none", name;
    bool reservedTextSet = false;
    std::int32_t reserved = -1;
    std::int32_t pair = -1;
};

/// An array of objects and of pointers to them.
template <typename Object, typename Interface>
class ObjectArray {
public:
    explicit ObjectArray(std::size_t size) : mObjects(size), mPointers(size)
    {
        for (std::size_t i = 0; i < size; ++i)
            mPointers[i] = &mObjects[i];
    }
    Object& operator[](std::size_t index) { return mObjects[index]; }
    Interface** pointers() { return mPointers.data(); }
    std::size_t size() const { return mObjects.size(); }

private:
    std::vector<Object> mObjects;
    std::vector<Interface*> mPointers;
};
using RouteArray = ObjectArray<ListedRoute, KEST_SystemPluginRoute>;
using InterfaceArray = ObjectArray<ListedInterface, KEST_NetworkInterface>;

}  // namespace testsupport

#endif
