// SPDX-License-Identifier: Apache-2.0
//
// agent LIBRARY FOLDER: an agent in the words of C++11, so that every later standard compiles it too. It loads the
// plug-in, makes an object of each interface and prints what the operations return. FOLDER holds certificates in DER
// form: gateway, issuer, stranger, expired and client; the signature of the client's key goes to FOLDER/signature.
#include <dlfcn.h>
#include <kest/CertPlugin.h>
#include <kest/SocketPlugin.h>
#include <kest/StoragePlugin.h>
#include <kest/SystemPlugin.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

unsigned int sizeOf(const Bytes& bytes)
{
    return static_cast<unsigned int>(bytes.size());
}

Bytes read(const std::string& path)
{
    std::ifstream file(path.c_str(), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class Events : public KEST_SystemPluginCB {
public:
    Events() : changes(0) {}
    void OnPowerSuspended() override {}
    void OnPowerResume() override {}
    void OnConnectionChange(std::uint32_t) override {}
    void OnConfigurationChange() override { ++changes; }
    int changes;
};

class Route : public KEST_SystemPluginRoute {
public:
    Route() : mReserved(-1), mMetric(0) {}
    Route(const char* destination, const char* netmask, const char* gateway)
        : mDestination(destination), mNetmask(netmask), mGateway(gateway), mReserved(0), mMetric(0)
    {
    }
    void SetDestination(char* text) override { take(mDestination, text); }
    const char* GetDestination() override { return mDestination.c_str(); }
    void SetGateway(char* text) override { take(mGateway, text); }
    const char* GetGateway() override { return mGateway.c_str(); }
    void SetNetmask(char* text) override { take(mNetmask, text); }
    const char* GetNetmask() override { return mNetmask.c_str(); }
    void SetInterface(char* text) override { take(mInterface, text); }
    const char* GetInterface() override { return mInterface.c_str(); }
    void SetReservedValue(std::int32_t value) override { mReserved = value; }
    std::int32_t GetReservedValue() override { return mReserved; }
    void SetMetric(unsigned int metric) override { mMetric = metric; }
    unsigned int GetMetric() override { return mMetric; }

    std::string line() const
    {
        return "route " + mDestination + " " + mNetmask + " through " + mInterface + ", gateway " + mGateway +
               ", reserved " + std::to_string(mReserved) + ", metric " + std::to_string(mMetric);
    }

private:
    static void take(std::string& member, char* text)
    {
        member = text != nullptr ? text : "null";
        std::free(text);
    }

    std::string mDestination;
    std::string mNetmask;
    std::string mGateway;
    std::string mInterface;
    std::int32_t mReserved;
    unsigned int mMetric;
};

class Interface : public KEST_NetworkInterface {
public:
    void SetAddress(const char* address) override { mLine += std::string(" address ") + address; }
    void SetNetmask(const char* netmask) override { mLine += std::string(" netmask ") + netmask; }
    void SetGateway(const char* gateway) override { mLine += std::string(" gateway ") + gateway; }
    void SetReservedText(const char* text) override { mLine += std::string(" text ") + text; }
    void SetName(const char* name) override { mLine += std::string(" name ") + name; }
    void SetReservedValue(std::int32_t value) override { mLine += " value " + std::to_string(value); }
    void SetReservedPair(std::int32_t first, std::int32_t second) override
    {
        mLine += " pair " + std::to_string(first) + " " + std::to_string(second);
    }
    const std::string& line() const { return mLine; }

private:
    std::string mLine;
};

void useStorage(KEST_StoragePlugin& storage)
{
    unsigned int count = 0;
    std::printf("EnumerateFiles %d", storage.EnumerateFiles(LOCATION_USER, count, nullptr));
    std::printf(", %u files\n", count);
    const unsigned char text[] = {'h', 'e', 'l', 'l', 'o'};
    std::printf("SaveFile %d\n", storage.SaveFile(LOCATION_USER, "greeting", text, sizeof text));
    Bytes buffer(6);
    unsigned int size = 5;
    std::printf("LoadFile %d", storage.LoadFile(LOCATION_USER, "greeting", buffer.data(), size));
    std::printf(", %u bytes needed\n", size);
    size = 6;
    std::printf("LoadFile %d", storage.LoadFile(LOCATION_USER, "greeting", buffer.data(), size));
    std::printf(", %.*s\n", static_cast<int>(size), reinterpret_cast<const char*>(buffer.data()));
    char name[256] = "";
    char* names[] = {name};
    count = 1;
    std::printf("EnumerateFiles %d", storage.EnumerateFiles(LOCATION_USER, count, names));
    std::printf(", %s\n", name);
    KEST_FileInformation information = KEST_FileInformation();
    std::printf("SimpleStat %d", storage.SimpleStat(LOCATION_USER, "greeting", information));
    std::printf(", flags %u, size %lld\n", information.flags, static_cast<long long>(information.size));
    void* address = nullptr;
    std::printf("SimpleMapFile %d", storage.SimpleMapFile(LOCATION_USER, "greeting", address, size));
    std::printf(", %.*s\n", static_cast<int>(size), static_cast<const char*>(address));
    std::printf("SimpleUnmapFile %d\n", storage.SimpleUnmapFile(address));
    std::printf("DeleteFile %d\n", storage.DeleteFile(LOCATION_USER, "greeting"));
    std::printf("GetLastErrorString %d\n", storage.GetLastErrorString(name, sizeof name));
}

void verify(KEST_CertPlugin& certificates, const std::string& folder, const char* who, const char* serverName)
{
    const Bytes certificate = read(folder + "/" + who + ".der");
    bool promptUser = false;
    const PluginResult result =
        certificates.VerifyServerCertificate(certificate.data(), sizeOf(certificate), serverName, promptUser);
    std::printf("VerifyServerCertificate of %s %d%s\n", who, result, promptUser ? ", ask the user" : "");
}

void verifyAll(KEST_CertPlugin& certificates, const std::string& folder)
{
    const Bytes issuer = read(folder + "/issuer.der");
    std::printf("AddVerificationCert %d\n", certificates.AddVerificationCert(issuer.data(), sizeOf(issuer)));
    verify(certificates, folder, "gateway", "vpn.example");
    verify(certificates, folder, "stranger", "vpn.example");
    verify(certificates, folder, "expired", "vpn.example");
    std::printf("ClearVerificationCertificates %d\n", certificates.ClearVerificationCertificates());
}

void useClientCertificate(KEST_CertPlugin& certificates, const std::string& folder)
{
    unsigned int count = 0;
    std::printf("EnumerateClientCerts %d", certificates.EnumerateClientCerts(count, nullptr));
    std::printf(", %u of them\n", count);
    if (count != 1) return;
    ClientCertHandle* handle = nullptr;
    std::printf("EnumerateClientCerts %d\n", certificates.EnumerateClientCerts(count, &handle));
    unsigned int length = 0;
    unsigned char* der = nullptr;
    std::printf("GetCertDer %d", handle->GetCertDer(length, der));
    std::printf(", %s\n", Bytes(der, der + length) == read(folder + "/client.der") ? "the client's" : "another");
    const Bytes hash(36, 'x');
    Bytes signature(256);
    unsigned char* place = signature.data();
    length = 0;
    std::printf("SignSSL %d", handle->SignSSL(hash.data(), sizeOf(hash), place, length, nullptr));
    std::printf(", %u bytes\n", length);
    std::ofstream((folder + "/signature").c_str(), std::ios::binary)
        .write(reinterpret_cast<const char*>(signature.data()), length);
    std::printf("DisposeClientCertHandle %d\n", certificates.DisposeClientCertHandle(handle));
}

void useSocket(KEST_SocketPlugin& sockets)
{
    char name[16] = "";
    unsigned int size = 2;
    std::printf("GetPreferredInterface %d", sockets.GetPreferredInterface(size, name, nullptr));
    std::printf(", %u bytes needed\n", size);
    size = sizeof name;
    std::printf("GetPreferredInterface %d", sockets.GetPreferredInterface(size, name, nullptr));
    std::printf(", %s\n", name);
    const int outer = socket(AF_INET, SOCK_DGRAM, 0);
    std::printf("BindToInterface %d", sockets.BindToInterface(nullptr, static_cast<unsigned int>(outer)));
    char device[16] = "";
    socklen_t length = sizeof device;
    getsockopt(outer, SOL_SOCKET, SO_BINDTODEVICE, device, &length);
    std::printf(", bound to %s\n", device);
}

void listRoutes(KEST_SystemPlugin& system)
{
    unsigned int count = 0;
    std::printf("EnumerateRoutes %d", system.EnumerateRoutes(count, nullptr));
    std::printf(", %u routes\n", count);
    std::vector<Route> routes(count);
    std::vector<KEST_SystemPluginRoute*> pointers;
    for (std::vector<Route>::iterator route = routes.begin(); route != routes.end(); ++route)
        pointers.push_back(&*route);
    std::printf("EnumerateRoutes %d\n", system.EnumerateRoutes(count, pointers.data()));
    for (std::vector<Route>::const_iterator route = routes.begin(); route != routes.end(); ++route)
        std::printf("  %s\n", route->line().c_str());
}

void listInterfaces(KEST_SystemPlugin& system)
{
    unsigned int count = 0;
    std::printf("EnumerateNetworkInterfaces %d", system.EnumerateNetworkInterfaces(count, nullptr));
    std::printf(", %u of them\n", count);
    std::vector<Interface> interfaces(count);
    std::vector<KEST_NetworkInterface*> pointers;
    for (std::vector<Interface>::iterator interface = interfaces.begin(); interface != interfaces.end(); ++interface)
        pointers.push_back(&*interface);
    std::printf("EnumerateNetworkInterfaces %d\n", system.EnumerateNetworkInterfaces(count, pointers.data()));
    for (std::vector<Interface>::const_iterator interface = interfaces.begin(); interface != interfaces.end();
         ++interface)
        std::printf(" %s\n", interface->line().c_str());
}

void useSystem(KEST_SystemPlugin& system, Events& events)
{
    listInterfaces(system);
    listRoutes(system);
    std::printf("SetSystemPluginCB %d\n", system.SetSystemPluginCB(&events));
    std::printf("SetTunnelParams %d\n",
                system.SetTunnelParams("norvatun0", nullptr, "10.8.0.2", "255.255.255.0", nullptr, nullptr, 1500));
    Route office("10.20.0.0", "255.255.0.0", "10.8.0.1");
    KEST_SystemPluginRoute* routes[] = {&office};
    std::printf("AddRoute %d\n", system.AddRoute(1, routes));
    std::printf("SetPacketFilterRule %d\n",
                system.SetPacketFilterRule("10.8.0.2", "255.255.255.255", 0, nullptr, nullptr, 25, FILTER_PROTOCOL_TCP,
                                           FILTER_DIRECTION_OUT, "norvatun0", FILTER_ACTION_DROP));
    std::printf("SetProxy %d\n", system.SetProxy(PROXY_TYPE_MANUAL, "proxy.example"));
    std::printf("ApplyConfiguration %d", system.ApplyConfiguration());
    std::printf(", %d change told\n", events.changes);
    listRoutes(system);
    std::printf("DeleteRoute %d\n", system.DeleteRoute(1, routes));
    listRoutes(system);
    std::printf("RestoreSystemConfiguration %d", system.RestoreSystemConfiguration());
    std::printf(", %d changes told\n", events.changes);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) return 2;
    void* library = dlopen(argv[1], RTLD_NOW);
    if (library == nullptr) {
        std::printf("%s\n", dlerror());
        return 1;
    }
    const CreatePluginFunction create = reinterpret_cast<CreatePluginFunction>(dlsym(library, "CreatePlugin"));
    const DisposePluginFunction dispose = reinterpret_cast<DisposePluginFunction>(dlsym(library, "DisposePlugin"));
    const AvailableInterfaceList available =
        reinterpret_cast<GetAvailableInterfacesFunction>(dlsym(library, "GetAvailableInterfaces"))();
    Events events;  // outlives the system object
    std::vector<Plugin*> objects;
    for (std::uint32_t i = 0; i < available.count; ++i) {
        Plugin* object = create(available.entries[i].identifier);
        std::printf("%s: %s\n", available.entries[i].identifier,
                    object->SupportsInterface(available.entries[i].identifier, 1) ? "supported" : "another");
        objects.push_back(object);
    }
    // The order of the table is documented.
    KEST_CertPlugin& certificates = static_cast<KEST_CertPlugin&>(*objects.at(1));
    useStorage(static_cast<KEST_StoragePlugin&>(*objects.at(2)));
    verifyAll(certificates, argv[2]);
    useClientCertificate(certificates, argv[2]);
    useSocket(static_cast<KEST_SocketPlugin&>(*objects.at(3)));
    useSystem(static_cast<KEST_SystemPlugin&>(*objects.at(0)), events);
    for (std::vector<Plugin*>::iterator object = objects.begin(); object != objects.end(); ++object)
        std::printf("DisposePlugin %s\n", dispose(*object) ? "true" : "false");
    std::printf("%d changes told\n", events.changes);
    std::printf("dlclose %d\n", dlclose(library));
    return 0;
}
