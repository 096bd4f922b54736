// SPDX-License-Identifier: Apache-2.0
//
// The two services, each a process of its own with faults of its own: its start, and its answer to a request.
#include <poll.h>

#include <csignal>
#include <filesystem>

#include "CertificateAuthority.h"
#include "Daemons.h"
#include "KernelState.h"
#include "Operation.h"
#include "Shell.h"

namespace faults {

namespace {

using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::runCommand;

constexpr char controlOfService[] = "/tmp/service-control";
constexpr char injector[] = "LD_PRELOAD=" WFOAL_BUILD_DIR "/lib/libfaultInjector.so";

struct ServiceProgram {
    const char* program;
    const char* name;
    const char* method;
    std::string payload;
};

ServiceProgram certificateManager()
{
    return {WFOAL_BUILD_DIR "/bin/vesk-certificatemanager", "com.vesk.certificatemanager", "addcertificate",
            R"({"certificateFilename":"/tmp/bundle.pfx","passphrase":"secret"})"};
}

ServiceProgram connectionManager()
{
    return {WFOAL_BUILD_DIR "/bin/vesk-connectionmanager", "com.vesk.connectionmanager", "getStatus", "{}"};
}

class WithService : public Operation {
public:
    Control& control() const override { return *mpControl; }
    pid_t process() const override { return mProcess.pid(); }

protected:
    explicit WithService(ServiceProgram program) : mService(std::move(program))
    {
        testsupport::writeFile("/tmp/bundle.pfx", testsupport::makeIdentity({"client", 4}).pkcs12("secret"));
        testsupport::addVethPair("eth0", "peer-eth0", "192.0.2.10/24");
        testsupport::shell("ip route add default via 192.0.2.1 dev eth0");
    }

    void start()
    {
        mProcess = ChildProcess({"env", injector, std::string(controlVariable) + "=" + controlOfService,
                                 "VKLOG_TARGET=stderr", mService.program});
    }

    /// True when the service has its name; false when it has ended.
    bool isUp()
    {
        for (int round = 0; round < 500; ++round) {
            if (!mProcess.running()) return false;
            const CommandResult owner = runCommand({"busctl", "--system", "call", "org.freedesktop.DBus", "/",
                                                    "org.freedesktop.DBus", "NameHasOwner", "s", mService.name});
            if (owner.output.find("b true") != std::string::npos) return true;
            poll(nullptr, 0, 10);
        }
        throw Finding("it neither comes up nor ends");
    }

    /// The reply's payload; empty when there was an error.
    CommandResult ask() const
    {
        return runCommand({"busctl", "--system", "--timeout=20", "call", mService.name, "/", "com.vesk.JsonService1",
                           mService.method, "s", mService.payload});
    }

    void expectNoCrash(int status) { expect(status < 128, "it ended by signal " + std::to_string(status - 128)); }

    const ServiceProgram mService;
    Control* mpControl = mapControl(controlOfService);
    ChildProcess mBus = testsupport::startBus();
    ChildProcess mProcess;
};

class Start : public WithService {
protected:
    using WithService::WithService;

    // Nothing is held across a start.
    pid_t process() const override { return getpid(); }
    void begin() override { std::filesystem::remove_all("/var/ssl"); }
    int act() override
    {
        start();
        return isUp() ? 0 : 1;
    }
    void judge(int result, const Disturbance&) override
    {
        if (result == 0) {
            const CommandResult reply = ask();
            expect(reply.output.find("returnValue") != std::string::npos, "it is up, but says " + reply.output);
            return;
        }
        const int status = mProcess.wait();
        expectNoCrash(status);
        expect(status == 1, "it ended with " + std::to_string(status));
    }
    void end() override
    {
        mProcess.stop();
        control().blocks = 0;
    }
};

class Answer : public WithService {
protected:
    explicit Answer(const ServiceProgram& program) : WithService(program) { restart(); }

    void begin() override
    {
        std::filesystem::remove_all("/var/ssl");
        if (!mProcess.running()) restart();
        expect(isUp(), "it has ended");
    }
    int act() override
    {
        mReply = ask().output;
        return 0;
    }
    void judge(int, const Disturbance& disturbance) override
    {
        if (!mProcess.running()) expectNoCrash(mProcess.wait());
        expect(mProcess.running(), "it has ended: " + mReply);
        if (disturbance.isUndisturbed) {
            expect(mReply.find("true") != std::string::npos, "the answer is " + mReply);
        }
        judgeFiles();
    }
    virtual void judgeFiles() {}

    std::string mReply;

private:
    void restart()
    {
        start();
        if (!isUp()) throw std::runtime_error("the service does not start");
    }
};

class StartCertificateManager : public Start {
public:
    StartCertificateManager() : Start(certificateManager()) {}
};

class StartConnectionManager : public Start {
public:
    StartConnectionManager() : Start(connectionManager()) {}
};

class AddCertificate : public Answer {
public:
    AddCertificate() : Answer(certificateManager()) {}

private:
    void judgeFiles() override
    {
        const std::string certificates = testsupport::shell("ls -A /var/ssl/certs 2>/dev/null || true");
        const std::string keys = testsupport::shell("ls -A /var/ssl/private 2>/dev/null || true");
        expect((certificates + keys).find(".installing") == std::string::npos, "half a file: " + certificates + keys);
        expect(certificates.empty() || !keys.empty(), "a certificate without its key");
        const bool isInstalled = mReply.find("true") != std::string::npos;
        expect(!isInstalled || (!certificates.empty() && !keys.empty()), "it says installed, but is not");
    }
};

class GetStatus : public Answer {
public:
    GetStatus() : Answer(connectionManager()) {}
};

}  // namespace

Entries serviceOperations()
{
    return {
        {"start-of-the-certificate-manager", make<StartCertificateManager>, 0, {0, 1}},
        {"start-of-the-connection-manager", make<StartConnectionManager>, 0, {0, 1}},
        {"addcertificate", make<AddCertificate>, 0, {0}},
        {"getStatus", make<GetStatus>, 0, {0}},
    };
}

}  // namespace faults
