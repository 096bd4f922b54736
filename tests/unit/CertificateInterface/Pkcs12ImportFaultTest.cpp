// SPDX-License-Identifier: Apache-2.0
//
// An import while each of its allocations fails, GLib's too: it ends with a result that it may have, and the process
// lives on, except where an assertion stands.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "AllocationFaults.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FakeQuorService.h"
#include "VkLogLib.h"

using faults::AllocationFault;
using faults::Glib;

namespace {

// How a child that imports ends: its exit code.
enum End : int {
    Imported,
    Failed,
    NotOpened,  // thrown by the element
    Asserted,   // where an assertion stands
    Foreign,    // another assertion, another exception, a handle without success
};
constexpr int notStruck = 8;  // added when fewer allocations were made

}  // namespace

// The recording fakes would allocate. The certificate manager answers at once, on the calling thread, so that the
// allocations of the event thread, which takes the answer, fail too.
extern "C" {

void __wrap_VkLogPrint(VkLogContext*, int, const char*, ...);
void __wrap_VkLogPrint(VkLogContext*, int, const char*, ...) {}

bool __wrap_QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback, void* userData,
                   QSMessageToken* token, QSError* error);
bool __wrap_QSCall(QSHandle* handle, const char*, const char*, QSReplyCallback callback, void* userData,
                   QSMessageToken*, QSError*)
{
    QSMessage message{"{\"returnValue\": true}", 1};
    return callback(handle, &message, userData);
}

[[noreturn]] void __wrap_g_assertion_message_expr(const char* domain, const char* file, int line, const char* function,
                                                  const char* expression);
void __wrap_g_assertion_message_expr(const char*, const char*, int, const char*, const char* expression)
{
    const bool stands = std::strcmp(expression, "jsonToSend") == 0 || std::strcmp(expression, "szJsonOutMsg") == 0;
    const faults::NoFault none;  // a coverage build writes its counters now
    _exit(stands ? Asserted : Foreign);
}

}  // extern "C"

namespace {

int endOfImport(const std::vector<unsigned char>& bundle)
{
    CertificateInterface interface;
    bool first = true;
    bool second = true;
    ClientCertHandle* handle = nullptr;
    try {
        const PluginResult result = interface.ImportPKCS12(static_cast<unsigned>(bundle.size()), bundle.data(),
                                                           "secret", "store", first, second, handle);
        if (result == PLUGIN_SUCCESS && handle != nullptr && !second) return Imported;
        return result == PLUGIN_FAILURE && handle == nullptr && !second ? Failed : Foreign;
    } catch (const char*) {
        return NotOpened;
    } catch (...) {
        return Foreign;
    }
}

// In a child, since the process may end.
int waitStatusOfImport(const std::vector<unsigned char>& bundle, int nth, bool forEver)
{
    const pid_t child = fork();
    if (child == 0) {
        int end = Foreign;
        {
            const AllocationFault fault(nth, forEver, Glib::Included);
            end = endOfImport(bundle) + (fault.hasStruck() ? 0 : notStruck);
        }
        _exit(end);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST(Pkcs12ImportFaultTest, FailedAllocationEndsNoProcess)
{
    const std::vector<unsigned char> bundle = testsupport::makeIdentity({"client", 10}).pkcs12("secret");
    ASSERT_EQ(Imported, endOfImport(bundle));
    for (const bool forEver : {false, true}) {
        std::map<int, int> ends;
        int end = 0;
        // Those of the element come last and are by far the most: a sample of them.
        for (int nth = 1; end < notStruck; nth += 1 + nth / 25) {
            const int status = waitStatusOfImport(bundle, nth, forEver);
            ASSERT_TRUE(WIFEXITED(status))
                << "allocation " << nth << " ends the process: " << strsignal(WTERMSIG(status));
            end = WEXITSTATUS(status);
            ASSERT_NE(Foreign, end) << nth;
            ++ends[end];
        }
        EXPECT_EQ(notStruck + Imported, end);
        EXPECT_LT(5, ends[Failed]);
        EXPECT_LT(5, ends[NotOpened]);
        EXPECT_LT(0, ends[Asserted]);
    }
}

}  // namespace
