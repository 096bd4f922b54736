// SPDX-License-Identifier: Apache-2.0
//
// Owners of json-c objects.
#ifndef HANDLES_JSON_H
#define HANDLES_JSON_H

#include <json-c/json.h>

#include <memory>

struct JsonReleaser {
    void operator()(json_object* object) const { json_object_put(object); }
};
using JsonPtr = std::unique_ptr<json_object, JsonReleaser>;

struct JsonTokenerReleaser {
    void operator()(json_tokener* tokener) const { json_tokener_free(tokener); }
};
using JsonTokenerPtr = std::unique_ptr<json_tokener, JsonTokenerReleaser>;

#endif
