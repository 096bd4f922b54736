// SPDX-License-Identifier: Apache-2.0
//
// StatusFlood MICROSECONDS: a connection manager that pushes a status to its subscribers that often, until it is ended.
// Wi-Fi and WAN are the better choice in turn, so that an agent that is not bound is told of every push.
#include <glib.h>

#include <cstdlib>

#include "handles/Glib.h"
#include "quorservice.h"

namespace {

constexpr char wifi[] = R"({"wifi":{"state":"connected","onInternet":"yes"},"wan":{"state":"disconnected"}})";
constexpr char wan[] = R"({"wifi":{"state":"disconnected"},"wan":{"state":"connected","onInternet":"yes"}})";

bool getStatus(QSHandle* handle, QSMessage* message, void*)
{
    QSSubscriptionAdd(handle, "status", message, nullptr);
    return QSMessageReply(handle, message, wifi, nullptr);
}

}  // namespace

int main(int argc, char** argv)
{
    const gint64 period = argc > 1 ? std::atoi(argv[1]) : 1000;
    const GMainContextPtr context(g_main_context_new());
    const GMainLoopPtr loop(g_main_loop_new(context.get(), FALSE));
    static QSMethod methods[] = {{"getStatus", getStatus}, {nullptr, nullptr}};
    QSHandle* handle = nullptr;
    if (!QSRegister("com.vesk.connectionmanager", &handle, nullptr)) return EXIT_FAILURE;
    QSRegisterCategory(handle, "/", methods, nullptr, nullptr, nullptr);
    QSGmainAttach(handle, loop.get(), nullptr);
    for (bool isWifi = false;; isWifi = !isWifi) {
        const gint64 until = g_get_monotonic_time() + period;
        while (g_main_context_iteration(context.get(), FALSE) != FALSE) {
        }
        QSSubscriptionReply(handle, "status", isWifi ? wifi : wan, nullptr);
        const gint64 left = until - g_get_monotonic_time();
        if (left > 0) g_usleep(static_cast<gulong>(left));
    }
}
