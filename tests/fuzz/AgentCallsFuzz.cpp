// SPDX-License-Identifier: Apache-2.0
//
// Sequences of an agent's calls, with answers of the platform and events in between. Each byte of the input is an
// operation, followed by its arguments. Every operation has a documented result, and every request that reaches the
// platform is one JSON object.
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "AgentObjects.h"
#include "FakeCalls.h"
#include "FakeNetConfig.h"
#include "FakeQuorService.h"
#include "FuzzSetup.h"
#include "NetworkStatus.h"
#include "TunDevice.h"
#include "handles/JsonParser.h"
#include "handles/UniqueFd.h"
#include "kest/CertPlugin.h"
#include "kest/SocketPlugin.h"
#include "kest/StoragePlugin.h"
#include "kest/SystemPlugin.h"
#include "kest/SystemPluginCB.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

class Input {
public:
    Input(const unsigned char* data, std::size_t size) : mData(data), mLeft(size) {}

    bool isEmpty() const { return mLeft == 0; }

    unsigned int byte()
    {
        if (mLeft == 0) return 0;
        --mLeft;
        return *mData++;
    }

    unsigned int number() { return byte() | byte() << 8; }

    /// A text of some bytes without NUL, or null.
    const char* text()
    {
        const unsigned int kind = byte();
        if (kind == 0xff) return nullptr;
        if (kind < std::size(usual)) return usual[kind];
        std::string& text = *mTexts.emplace_back(std::make_unique<std::string>());
        for (unsigned int left = kind % 64; left > 0 && mLeft > 0; --left)
            text += static_cast<char>(std::max(byte(), 1U));
        return text.c_str();
    }

    /// A list of texts with a null at its end.
    std::vector<const char*> list()
    {
        std::vector<const char*> texts;
        for (unsigned int left = byte() % 8; left > 0; --left)
            texts.push_back(text());
        texts.push_back(nullptr);
        return texts;
    }

private:
    static constexpr const char* usual[] = {"",          "0.0.0.0",  "10.8.0.1", "255.255.255.0", "128.0.0.1",
                                            "norvatun0", "eth0",     "..",       "corp.example",  "name",
                                            "10.20.0.0", "{\"a\":1}"};

    const unsigned char* mData;
    std::size_t mLeft;
    std::vector<std::unique_ptr<std::string>> mTexts;
};

class Agent : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override {}
    void OnPowerResume() override {}
    void OnConnectionChange(std::uint32_t reserved) override { require(reserved == 0); }
    void OnConfigurationChange() override {}
};

template <class Interface>
Interface* create(const char* identifier)
{
    Plugin* plugin = CreatePlugin(identifier);
    require(plugin != nullptr && plugin->SupportsInterface(identifier, 0));
    return static_cast<Interface*>(plugin);
}

void checkResult(PluginResult result)
{
    require(result == PLUGIN_SUCCESS || result == PLUGIN_FAILURE || result == PLUGIN_BUFFER_TOO_SMALL);
}

/// An agent with its four objects.
class Session {
public:
    explicit Session(Input& input) : mInput(input) {}
    ~Session()
    {
        for (ClientCertHandle* handle : mHandles)
            mCertificates->DisposeClientCertHandle(handle);
        for (Plugin* plugin : {static_cast<Plugin*>(mSystem), static_cast<Plugin*>(mSocket),
                               static_cast<Plugin*>(mStorage), static_cast<Plugin*>(mCertificates)})
            require(DisposePlugin(plugin));
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void runOneOperation();

private:
    void setDnsDomain() { require(mSystem->SetDNSDomain(mInput.text()) == PLUGIN_SUCCESS); }
    void setDnsServers() { require(mSystem->SetDNSServers(mInput.list().data()) == PLUGIN_SUCCESS); }
    void setSplitDomains() { require(mSystem->SetSplitDNSDomains(mInput.list().data()) == PLUGIN_SUCCESS); }
    void setRule();
    void setCallback();
    void apply() { checkResult(mSystem->ApplyConfiguration()); }
    void restore() { require(mSystem->RestoreSystemConfiguration() == PLUGIN_SUCCESS); }
    void addRoutes();
    void listRoutes();
    void listInterfaces();
    void setTunnel();
    void chooseInterface();
    void bindSocket();
    void saveFile();
    void loadFile();
    void listFiles();
    void deleteFile();
    void mapFile();
    void statFile();
    void verify();
    void addIntermediate();
    void listCertificates();
    void importBundle();
    void choosePlatformResults();
    void pushStatus();
    KEST_FileLocation location() { return static_cast<KEST_FileLocation>(mInput.byte() % 9); }
    /// A name within its folder, so that no operation leaves the folders of the plug-in.
    const char* fileName();

    Input& mInput;
    Agent mAgent;
    KEST_SystemPlugin* mSystem = create<KEST_SystemPlugin>(KEST_SYSTEM_INTERFACE);
    KEST_SocketPlugin* mSocket = create<KEST_SocketPlugin>(KEST_SOCKET_INTERFACE);
    KEST_StoragePlugin* mStorage = create<KEST_StoragePlugin>(KEST_STORAGE_INTERFACE);
    KEST_CertPlugin* mCertificates = create<KEST_CertPlugin>(KEST_CERTIFICATE_INTERFACE);
    std::vector<ClientCertHandle*> mHandles;
};

void Session::setRule()
{
    const char* sourceAddress = mInput.text();
    const char* sourceMask = mInput.text();
    const char* destinationAddress = mInput.text();
    const char* destinationMask = mInput.text();
    const auto sourcePort = static_cast<unsigned short>(mInput.number());
    const auto destinationPort = static_cast<unsigned short>(mInput.number());
    const auto protocol = static_cast<KEST_FilterProtocol>(mInput.byte());
    const auto direction = static_cast<KEST_FilterApplyDirection>(mInput.byte());
    const char* name = mInput.text();
    const auto action = static_cast<KEST_FilterAction>(mInput.byte() % 2);
    require(mSystem->SetPacketFilterRule(sourceAddress, sourceMask, sourcePort, destinationAddress, destinationMask,
                                         destinationPort, protocol, direction, name, action) == PLUGIN_SUCCESS);
}

void Session::setCallback()
{
    const bool isGiven = mInput.byte() % 2 == 0;
    require(mSystem->SetSystemPluginCB(isGiven ? &mAgent : nullptr) == (isGiven ? PLUGIN_SUCCESS : PLUGIN_FAILURE));
}

char* copyOf(const char* text)
{
    return text != nullptr ? strdup(text) : nullptr;
}

void Session::addRoutes()
{
    testsupport::RouteArray routes(mInput.byte() % 4);
    for (std::size_t i = 0; i < routes.size(); ++i) {
        routes[i].SetDestination(copyOf(mInput.text()));
        routes[i].SetNetmask(copyOf(mInput.text()));
        routes[i].SetGateway(copyOf(mInput.text()));
        routes[i].SetMetric(mInput.number());
    }
    require(mSystem->AddRoute(static_cast<unsigned int>(routes.size()), routes.pointers()) == PLUGIN_SUCCESS);
}

void Session::listRoutes()
{
    unsigned int count = 0;
    checkResult(mSystem->EnumerateRoutes(count, nullptr));
    testsupport::RouteArray routes(mInput.byte() % 8);
    count = static_cast<unsigned int>(routes.size());
    checkResult(mSystem->EnumerateRoutes(count, routes.pointers()));
}

void Session::listInterfaces()
{
    unsigned int count = 0;
    const PluginResult result = mSystem->EnumerateNetworkInterfaces(count, nullptr);
    checkResult(result);
    if (result != PLUGIN_SUCCESS) return;
    testsupport::InterfaceArray interfaces(count);
    require(mSystem->EnumerateNetworkInterfaces(count, interfaces.pointers()) == PLUGIN_SUCCESS);
}

void Session::setTunnel()
{
    const char* name = mInput.text();
    const char* address = mInput.text();
    const char* netmask = mInput.text();
    require(mSystem->SetTunnelParams(name, nullptr, address, netmask, nullptr, nullptr, mInput.number()) ==
            PLUGIN_SUCCESS);
}

void Session::chooseInterface()
{
    std::array<char, 32> name{};
    auto size = static_cast<unsigned int>(mInput.byte() % (name.size() + 1));
    checkResult(mSocket->GetPreferredInterface(size, name.data(), nullptr));
}

void Session::bindSocket()
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket.valid()) checkResult(mSocket->BindToInterface(nullptr, static_cast<unsigned int>(socket.get())));
}

const char* Session::fileName()
{
    const char* name = mInput.text();
    return name == nullptr || std::string(name).find('/') != std::string::npos ? "name" : name;
}

void Session::saveFile()
{
    const KEST_FileLocation where = location();
    const char* name = fileName();
    const char* content = mInput.text();
    const std::string bytes = content != nullptr ? content : "";
    checkResult(mStorage->SaveFile(where, name, reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<unsigned int>(bytes.size())));
}

void Session::loadFile()
{
    const KEST_FileLocation where = location();
    std::array<unsigned char, 128> buffer{};
    auto size = static_cast<unsigned int>(mInput.byte() % (buffer.size() + 1));
    const unsigned int room = size;
    const PluginResult result = mStorage->LoadFile(where, fileName(), buffer.data(), size);
    checkResult(result);
    require(result != PLUGIN_SUCCESS || size <= room);
}

void Session::listFiles()
{
    const KEST_FileLocation where = location();
    unsigned int count = 0;
    checkResult(mStorage->EnumerateFiles(where, count, nullptr));
    std::vector<std::array<char, 256>> names(std::min(count, 64U));
    std::vector<char*> pointers;
    for (auto& name : names)
        pointers.push_back(name.data());
    count = static_cast<unsigned int>(names.size());
    checkResult(mStorage->EnumerateFiles(where, count, pointers.data()));
}

void Session::deleteFile()
{
    const KEST_FileLocation where = location();
    checkResult(mStorage->DeleteFile(where, fileName()));
}

void Session::mapFile()
{
    const KEST_FileLocation where = location();
    void* address = nullptr;
    unsigned int size = 0;
    if (mStorage->SimpleMapFile(where, fileName(), address, size) == PLUGIN_SUCCESS) {
        require(address != nullptr && address != MAP_FAILED);
        require(mStorage->SimpleUnmapFile(address) == PLUGIN_SUCCESS);
    }
    require(mStorage->SimpleUnmapFile(this) == PLUGIN_FAILURE);
}

void Session::statFile()
{
    const KEST_FileLocation where = location();
    KEST_FileInformation information{};
    checkResult(mStorage->SimpleStat(where, fileName(), information));
}

void Session::verify()
{
    const char* name = mInput.text();
    const char* data = mInput.text();
    const std::string bytes = data != nullptr ? data : "";
    bool promptUser = false;
    const PluginResult result = mCertificates->VerifyServerCertificate(
        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()),
        name != nullptr ? name : "", promptUser);
    // None of these texts is a certificate.
    require(result == PLUGIN_FAILURE && !promptUser);
}

void Session::addIntermediate()
{
    const char* data = mInput.text();
    const std::string bytes = data != nullptr ? data : "";
    require(mCertificates->AddVerificationCert(reinterpret_cast<const unsigned char*>(bytes.data()),
                                               static_cast<unsigned int>(bytes.size())) == PLUGIN_SUCCESS);
    if (mInput.byte() % 4 == 0) require(mCertificates->ClearVerificationCertificates() == PLUGIN_SUCCESS);
}

void Session::listCertificates()
{
    unsigned int count = 0;
    checkResult(mCertificates->EnumerateClientCerts(count, nullptr));
    mHandles.resize(std::min(count, 8U));
    count = static_cast<unsigned int>(mHandles.size());
    if (count > 0) checkResult(mCertificates->EnumerateClientCerts(count, mHandles.data()));
}

void Session::importBundle()
{
    const char* data = mInput.text();
    const std::string bundle = data != nullptr ? data : "";
    const std::string answer = mInput.byte() % 2 == 0     ? "{\"returnValue\":true}"
                               : mInput.list().size() > 3 ? "{"
                                                          : "[]";
    fakes::bus().onCall = [&answer](const fakes::BusCall& call) {
        QSMessage message{answer.c_str(), 1};
        if (call.callback != nullptr) call.callback(call.handle, &message, call.userData);
    };
    bool first = false;
    bool second = true;
    ClientCertHandle* handle = nullptr;
    try {
        const PluginResult result = mCertificates->ImportPKCS12(static_cast<unsigned int>(bundle.size()),
                                                                reinterpret_cast<const unsigned char*>(bundle.data()),
                                                                mInput.text(), nullptr, first, second, handle);
        // None of these texts is a bundle.
        require(result == PLUGIN_FAILURE);
    } catch (const char*) {
        // Installed, says the reply; but what is no bundle does not open.
    }
    fakes::bus().onCall = nullptr;
    require(handle == nullptr && !second);
}

void Session::choosePlatformResults()
{
    const unsigned int bits = mInput.byte();
    fakes::netConfigResults() = {bits & 1U ? 1 : 0, bits & 2U ? -1 : 0, bits & 4U ? 22 : 0};
    fakes::bus().failing = bits & 8U ? "QSCall" : "";
}

void Session::pushStatus()
{
    const char* payload = mInput.text();
    QSMessage message{payload != nullptr ? payload : "{\"wifi\":{\"state\":\"connected\"}}", 1};
    require(handleConManNetworkStatus(nullptr, &message, nullptr));
}

void Session::runOneOperation()
{
    using Operation = void (Session::*)();
    static constexpr Operation operations[] = {
        &Session::setDnsDomain,     &Session::setDnsServers, &Session::setSplitDomains,
        &Session::setRule,          &Session::setCallback,   &Session::apply,
        &Session::restore,          &Session::addRoutes,     &Session::listRoutes,
        &Session::listInterfaces,   &Session::setTunnel,     &Session::chooseInterface,
        &Session::bindSocket,       &Session::saveFile,      &Session::loadFile,
        &Session::listFiles,        &Session::deleteFile,    &Session::mapFile,
        &Session::statFile,         &Session::verify,        &Session::addIntermediate,
        &Session::listCertificates, &Session::importBundle,  &Session::choosePlatformResults,
        &Session::pushStatus};
    (this->*operations[mInput.byte() % std::size(operations)])();
}

// What the platform was asked is JSON, or the name of the interface alone.
void checkRequests()
{
    for (const std::string& call : fakes::calls()) {
        const std::string function = call.substr(0, call.find(' '));
        if (function != "CmAddInterfaceCfg2" && function != "VkFirewallFullCtrl") continue;
        const JsonPtr request = jsonparser::parseStrict(call.c_str() + function.size() + 1);
        require(json_object_is_type(request.get(), json_type_object));
    }
}

// An apply, and a mapping, keep a descriptor each, for compatibility. They get numbers from here on, except for the
// first ones.
constexpr unsigned int firstKept = 64;

bool setUpOnce()
{
    fuzz::setUpOnce();
    require(chdir("/tmp") == 0);  // an unknown location is a relative path
    try {
        static auto& device = *new testsupport::TunDevice("norvatun0");  // requests hold its address
        device.setAddress("10.8.0.2", "10.8.0.1", "255.255.255.0");
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "requests have no address: %s\n", error.what());
    }
    static const auto* const eventSide = create<KEST_SocketPlugin>(KEST_SOCKET_INTERFACE);  // starts it
    require(eventSide != nullptr);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static const bool isSetUp = setUpOnce();
    require(isSetUp);
    fakes::clearLog();
    fakes::clearCalls();
    fakes::netConfigResults() = {};
    fakes::bus().failing.clear();
    {
        Input input(data, size);
        Session session(input);
        for (int left = 200; left > 0 && !input.isEmpty(); --left)
            session.runOneOperation();
    }
    checkRequests();
    syscall(SYS_close_range, firstKept, ~0U, 0);
    return 0;
}
