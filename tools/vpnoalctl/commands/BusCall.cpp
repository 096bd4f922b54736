// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl bus call: calls a platform service and prints its answer unchanged. Needs no plug-in.
#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "bus/BusClient.h"
#include "commands/Commands.h"
#include "tunnel/Signals.h"

namespace vpnoalctl {

namespace {

struct Options {
    std::string uri;
    std::string payload = "{}";
    bool follow = false;
};

// A service need not say "returnValue"; when it does, only true is success.
bool reportsFailure(json_object* reply)
{
    json_object* result = nullptr;
    if (!json_object_is_type(reply, json_type_object)) return false;
    if (!json_object_object_get_ex(reply, "returnValue", &result)) return false;
    return !json_object_is_type(result, json_type_boolean) || !json_object_get_boolean(result);
}

int callService(const Options& options, Context& context)
{
    Signals signals;
    BusClient bus;
    int result = ExitFailed;
    bus.call(options.uri, options.payload, [&](const std::string& payload) {
        const JsonPtr reply(json_tokener_parse(payload.c_str()));
        context.output.json() ? context.output.value(reply) : context.output.line(payload);
        context.output.flush();
        result = reportsFailure(reply.get()) ? ExitFailed : ExitOk;
        if (!options.follow) bus.stop();
    });
    bus.run(signals);
    return result;
}

}  // namespace

Action defineBusCall(CLI::App& command)
{
    const auto options = std::make_shared<Options>();
    command.add_option("URI", options->uri, "vesk://SERVICE/CATEGORY.../METHOD")->required();
    command.add_option("PAYLOAD", options->payload, "A JSON object of at most 64 KiB; {} when left out");
    command.add_flag("-f,--follow", options->follow, "Stay until Ctrl-C and print what the service pushes");
    return [options](Context& context) { return callService(*options, context); };
}

}  // namespace vpnoalctl
