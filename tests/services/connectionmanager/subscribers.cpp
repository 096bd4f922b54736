// SPDX-License-Identifier: Apache-2.0
//
// subscribers UID CONNECTIONS EACH: as user UID, opens connections to the system bus and subscribes to the connection
// manager's status EACH times on each of them. Prints how many subscriptions were accepted and, if any was refused, the
// reason of the last one. Stays until it is ended.
#include <grp.h>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "handles/SdBus.h"

int main(int count, char** arguments)
{
    if (count != 4) return 2;
    const auto user = static_cast<uid_t>(std::atoi(arguments[1]));
    if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0) return 1;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a change of the user clears it
    std::vector<SdBusPtr> connections;
    int accepted = 0;
    std::string refusal = "none refused";
    for (int i = 0; i < std::atoi(arguments[2]); ++i) {
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) < 0) return 1;
        connections.emplace_back(bus);
        for (int each = 0; each < std::atoi(arguments[3]); ++each) {
            sd_bus_error error{};
            const int result = sd_bus_call_method(bus, "com.vesk.connectionmanager", "/", "com.vesk.JsonService1",
                                                  "getStatus", &error, nullptr, "s", R"({"subscribe":true})");
            if (result >= 0) ++accepted;
            if (result < 0) refusal = error.message != nullptr ? error.message : "unknown reason";
            sd_bus_error_free(&error);
        }
    }
    std::printf("%d accepted, %s\n", accepted, refusal.c_str());
    std::fflush(stdout);
    pause();
    return 0;
}
