// SPDX-License-Identifier: Apache-2.0
//
// Importing a PKCS#12 bundle: staged in a file, installed by the certificate manager, and handed to the agent as a
// handle made of the same file.
#include <glib.h>
#include <sys/stat.h>

#include <cstring>

#include "Assertion.h"
#include "CertElement.h"
#include "CertificateInterface.h"
#include "ImportReply.h"
#include "Log.h"
#include "Pkcs12Import.h"
#include "QuorClient.h"
#include "handles/Glib.h"

namespace {

constexpr char stagingDirectory[] = "/tmp/vpncerts/";
constexpr char stagingFile[] = "/tmp/vpncerts/vpninstall.pfx";
constexpr char installMethod[] = "vesk://com.vesk.certificatemanager/addcertificate";
constexpr char importFunction[] = "ImportPKCS12";
constexpr int alreadyInstalled = 10;

// Writes everything, or leaves `error` set.
void writeAll(GIOChannel* channel, const unsigned char* data, unsigned int length, GError** error)
{
    const char* text = reinterpret_cast<const char*>(data);
    gsize total = 0;
    do {
        gsize written = 0;
        g_io_channel_write_chars(channel, text + total, static_cast<gssize>(length - total), &written, error);
        total += written;
        WFOAL_DEBUG("%s: Written %i of %i", "saveCertFile", static_cast<int>(total), static_cast<int>(length));
    } while (*error == nullptr && total < length);
    if (*error == nullptr) g_io_channel_shutdown(channel, TRUE, error);
}

JsonPtr installRequest(const char* passphrase)
{
    JsonPtr jsonToSend(json_object_new_object());
    WFOAL_ASSERT("Src/CertificateInterface", 417, jsonToSend);
    json_object_object_add(jsonToSend.get(), "certificateFilename", json_object_new_string(stagingFile));
    if (passphrase != nullptr) {
        json_object_object_add(jsonToSend.get(), "passphrase", json_object_new_string(passphrase));
    }
    return jsonToSend;
}

// Sends the request and waits. Null when no usable reply came.
JsonPtr requestInstallation(const char* passphrase)
{
    wfoal::ImportReply reply;
    WFOAL_DEBUG("%s: Sending Cert Install Request", importFunction);
    const JsonPtr jsonToSend = installRequest(passphrase);
    const char* szJsonOutMsg = json_object_get_string(jsonToSend.get());
    WFOAL_ASSERT("Src/CertificateInterface", 424, szJsonOutMsg);
    const bool isSent = quorSend(installMethod, szJsonOutMsg, importCallRespHandler, reply.context());
    JsonPtr answer = isSent ? reply.wait() : nullptr;
    WFOAL_DEBUG("%s: Done Waiting For Response", importFunction);
    return answer;
}

bool isInstalled(json_object* reply)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(reply, "returnValue", &value)) return false;
    if (json_object_get_boolean(value)) return true;
    return json_object_object_get_ex(reply, "errorCode", &value) && json_object_get_int(value) == alreadyInstalled;
}

}  // namespace

bool saveCertFile(unsigned int length, const unsigned char* data, const char* fileName)
{
    if (g_mkdir_with_parents(stagingDirectory, 0777) == -1) {
        WFOAL_ERROR("%s: Error Making the directory path", __func__);
        return false;
    }
    GError* error = nullptr;
    const GIOChannelPtr channel(g_io_channel_new_file(fileName, "w", &error));
    if (!channel) {
        const GErrorPtr reason(error);
        WFOAL_ERROR("%s: Error Opening Cert File: %s", __func__, reason->message);
        return false;
    }
    // A private key goes in: nobody else's to read, even while it is under a password.
    fchmod(g_io_channel_unix_get_fd(channel.get()), S_IRUSR | S_IWUSR);
    g_io_channel_set_encoding(channel.get(), nullptr, nullptr);
    writeAll(channel.get(), data, length, &error);
    if (error == nullptr) return true;
    const GErrorPtr reason(error);
    WFOAL_ERROR("%s: Error Writing Certificate File: %s", __func__, reason->message);
    return false;
}

PluginResult CertificateInterface::ImportPKCS12(unsigned int length, const unsigned char* data,
                                                const char* importPassword, const char* storePassword, bool&,
                                                bool& secondFlag, ClientCertHandle*& handle)
{
    WFOAL_DEBUG("%s: importPass: %s storePass: %s", __func__, importPassword, storePassword);
    secondFlag = false;
    if (data == nullptr && length > 0) return PLUGIN_FAILURE;
    if (!saveCertFile(length, data, stagingFile)) return PLUGIN_FAILURE;

    const JsonPtr reply = requestInstallation(importPassword);
    if (!reply) {
        WFOAL_ERROR("%s: Error getting response for certificate install", __func__);
        return PLUGIN_FAILURE;
    }
    const char* text = json_object_get_string(reply.get());
    WFOAL_DEBUG("%s: Json: %s", __func__, text);
    if (!isInstalled(reply.get())) {
        WFOAL_ERROR("%s: Error Installing Certificate into system: %s", __func__, text);
        return PLUGIN_FAILURE;
    }
    // May leave by the constructor's exception: the certificate is installed then, but the bundle does not open.
    handle = new CertElement(stagingFile, importPassword != nullptr ? importPassword : "");
    return PLUGIN_SUCCESS;
}
