// SPDX-License-Identifier: Apache-2.0
//
// Addresses on the service bus: vesk://SERVICE/CATEGORY.../METHOD.
#ifndef QUOR_SERVICEURI_H
#define QUOR_SERVICEURI_H

#include <optional>
#include <string>

namespace quor {

struct ServiceUri {
    std::string service;  // a bus name
    std::string path;     // "/CATEGORY...", "/" when there is none
    std::string method;

    bool operator==(const ServiceUri& other) const
    {
        return service == other.service && path == other.path && method == other.method;
    }
};

/// A method's name that the bus accepts: a letter or '_', then letters, digits and '_'.
bool isMethodName(const char* name);

/// None when a part is missing or the bus does not accept it.
std::optional<ServiceUri> parseServiceUri(const std::string& text);

}  // namespace quor

#endif
