// SPDX-License-Identifier: Apache-2.0
//
// The two services, each a process of its own with faults of its own: its start, and its answer to a request.
#include <poll.h>

#include <chrono>
#include <csignal>
#include <cstdio>
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

    enum State : int { up, ended, neither };

    /// Waits until the service has its name, or has ended.
    State awaitStart(std::chrono::seconds limit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        do {
            if (!mProcess.running()) return ended;
            const CommandResult owner = runCommand({"busctl", "--system", "call", "org.freedesktop.DBus", "/",
                                                    "org.freedesktop.DBus", "NameHasOwner", "s", mService.name});
            if (owner.output.find("b true") != std::string::npos) return up;
            poll(nullptr, 0, 10);
        } while (std::chrono::steady_clock::now() < end);
        return neither;
    }

    /// The reply's payload; empty when there was an error.
    CommandResult ask() const
    {
        return runCommand({"busctl", "--system", "--timeout=20", "call", mService.name, "/", "com.vesk.JsonService1",
                           mService.method, "s", mService.payload});
    }

    /// The reply of a service that may have to connect anew before.
    std::string askUntilItAnswers()
    {
        const auto end = std::chrono::steady_clock::now() + longestReturn;
        std::string output;
        do {
            output = ask().output;
            if (output.find("returnValue") != std::string::npos || !mProcess.running()) break;
            poll(nullptr, 0, 50);
        } while (std::chrono::steady_clock::now() < end);
        return output;
    }

    /// The exit code. GLib stops at a breakpoint when it gets no memory or no thread, and aborts without memory for a
    /// lock. These ends are counted apart.
    static void expectOrderlyEnd(int status, const Disturbance& disturbance)
    {
        if (status == 128 + SIGTRAP || (disturbance.isOfGlib && status == 128 + SIGABRT)) {
            std::puts("glib");
            return;
        }
        expect(status < 128, "it ended by signal " + std::to_string(status - 128));
        expect(status == 1, "it ended with " + std::to_string(status));
    }

    static constexpr auto longestReturn = std::chrono::seconds(20);

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
        return awaitStart(std::chrono::seconds(3));
    }
    // While each call fails it may go on trying; then it comes up when they succeed.
    void judge(int result, const Disturbance& disturbance) override
    {
        if (result == ended) return expectOrderlyEnd(mProcess.wait(), disturbance);
        if (result == neither) {
            expect(disturbance.isForEver, "it neither comes up nor ends");
            expect(awaitStart(longestReturn) == up, "it does not come up when calls succeed again");
        }
        const std::string reply = askUntilItAnswers();
        if (!mProcess.running())
            return expectOrderlyEnd(mProcess.wait(), disturbance);  // it had its name, but not the answer
        expect(reply.find("returnValue") != std::string::npos, "it is up, but says " + reply);
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

    bool comesBack() const override { return true; }
    // json-c drops and leaks a value for whose key it has no memory.
    long keptAfterFault() const override { return 2; }

    void begin() override
    {
        std::filesystem::remove_all("/var/ssl");
        if (!mProcess.running()) restart();
        expect(awaitStart(longestReturn) == up, "it has ended, or has no name");
    }
    int act() override
    {
        mReply = ask().output;
        return 0;
    }
    void judge(int, const Disturbance& disturbance) override
    {
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
        if (awaitStart(longestReturn) != up) throw std::runtime_error("the service does not start");
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
        {"start-of-the-certificate-manager", make<StartCertificateManager>, 0, {0, 1, 2}},
        {"start-of-the-connection-manager", make<StartConnectionManager>, 0, {0, 1, 2}},
        {"addcertificate", make<AddCertificate>, 0, {0}},
        {"getStatus", make<GetStatus>, 0, {0}},
    };
}

}  // namespace faults
