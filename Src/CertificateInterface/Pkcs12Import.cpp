// SPDX-License-Identifier: Apache-2.0
//
// Importing a PKCS#12 bundle: staged in a file, installed by the certificate manager, and handed to the agent as a
// handle made of the same file.
#include <glib.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "Assertion.h"
#include "CertElement.h"
#include "CertificateInterface.h"
#include "ImportReply.h"
#include "Log.h"
#include "Pkcs12Import.h"
#include "QuorClient.h"
#include "StagingFolder.h"

namespace {

constexpr char stagingDirectory[] = "/tmp/vpncerts/";
constexpr char stagingFile[] = "/tmp/vpncerts/vpninstall.pfx";
constexpr char installMethod[] = "vesk://com.vesk.certificatemanager/addcertificate";
constexpr char importFunction[] = "ImportPKCS12";
constexpr char saveFunction[] = "saveCertFile";
constexpr int alreadyInstalled = 10;

// The staged file belongs to one import at a time: from staging to sending, and while the element reads it.
std::mutex sStagedFileMutex;

// False when memory runs out.
bool addText(json_object* object, const char* key, const char* text)
{
    JsonPtr value(json_object_new_string(text));
    if (!value || json_object_object_add(object, key, value.get()) != 0) return false;
    static_cast<void>(value.release());  // the object's now
    return true;
}

// Null when memory runs out.
JsonPtr installRequest(const char* passphrase)
{
    JsonPtr jsonToSend(json_object_new_object());
    // Text and line number are fixed.
    WFOAL_ASSERT("Src/CertificateInterface", 417, jsonToSend);
    const bool isComplete = addText(jsonToSend.get(), "certificateFilename", stagingFile) &&
                            (passphrase == nullptr || addText(jsonToSend.get(), "passphrase", passphrase));
    return isComplete ? std::move(jsonToSend) : nullptr;
}

bool sendRequest(const char* passphrase, void* replyContext)
{
    WFOAL_DEBUG("%s: Sending Cert Install Request", importFunction);
    const JsonPtr jsonToSend = installRequest(passphrase);
    if (!jsonToSend) return false;
    const char* szJsonOutMsg = json_object_get_string(jsonToSend.get());
    // Text and line number are fixed.
    WFOAL_ASSERT("Src/CertificateInterface", 424, szJsonOutMsg);
    if (quorSend(installMethod, szJsonOutMsg, importCallRespHandler, replyContext)) return true;
    if (passphrase != nullptr && !g_utf8_validate(passphrase, -1, nullptr)) {
        WFOAL_ERROR("%s: The import password is not UTF-8, which the service bus may not carry", importFunction);
    }
    return false;
}

// Logs what is wrong with the reply.
bool isInstalled(json_object* reply)
{
    if (reply == nullptr) {
        WFOAL_ERROR("%s: Error getting response for certificate install", importFunction);
        return false;
    }
    const char* text = json_object_get_string(reply);
    WFOAL_DEBUG("%s: Json: %s", importFunction, text);
    const bool isAnswer = json_object_is_type(reply, json_type_object);
    json_object* const value = isAnswer ? json_object_object_get(reply, "returnValue") : nullptr;
    json_object* const code = isAnswer ? json_object_object_get(reply, "errorCode") : nullptr;
    // A value of another type counts as missing.
    if (json_object_is_type(value, json_type_boolean)) {
        if (json_object_get_boolean(value)) return true;
        if (json_object_is_type(code, json_type_int) && json_object_get_int64(code) == alreadyInstalled) return true;
    }
    WFOAL_ERROR("%s: Error Installing Certificate into system: %s", importFunction, text);
    return false;
}

UniqueFd openStaged(const char* fileName)
{
    const std::string folderName(stagingDirectory, std::strlen(stagingDirectory) - 1);
    if (!wfoal::makeStagingFolder(stagingDirectory)) {
        WFOAL_ERROR("%s: Error Making the directory path", saveFunction);
        return UniqueFd();
    }
    const wfoal::Result<UniqueFd> folder = wfoal::openStagingFolder(folderName);
    if (!folder) {
        WFOAL_ERROR("%s: %s is refused: %s", saveFunction, stagingDirectory, folder.reason().c_str());
        WFOAL_ERROR("%s: Error Making the directory path", saveFunction);
        return UniqueFd();
    }
    const char* slash = std::strrchr(fileName, '/');
    wfoal::Result<UniqueFd> file = wfoal::openStagingFile(*folder, slash != nullptr ? slash + 1 : fileName);
    if (file) return std::move(*file);
    WFOAL_ERROR("%s: Error Opening Cert File: %s", saveFunction, file.reason().c_str());
    return UniqueFd();
}

// Throws what the element's constructor throws: the certificate is installed then, but the bundle does not open.
PluginResult importStaged(unsigned int length, const unsigned char* data, const char* importPassword,
                          ClientCertHandle*& handle)
{
    std::unique_lock<std::mutex> stagedFile(sStagedFileMutex);
    if (!saveCertFile(length, data, stagingFile)) return PLUGIN_FAILURE;
    wfoal::ImportReply answer;
    const bool isSent = sendRequest(importPassword, answer.context());
    stagedFile.unlock();
    JsonPtr reply = isSent ? answer.wait() : nullptr;
    WFOAL_DEBUG("%s: Done Waiting For Response", importFunction);

    stagedFile.lock();
    // The staged file is the newer import's.
    if (!answer.isNewest()) reply.reset();
    if (!isInstalled(reply.get())) return PLUGIN_FAILURE;
    handle = new CertElement(stagingFile, importPassword != nullptr ? importPassword : "");
    return PLUGIN_SUCCESS;
}

}  // namespace

bool saveCertFile(unsigned int length, const unsigned char* data, const char* fileName)
{
    UniqueFd file = openStaged(fileName);
    if (!file.valid()) return false;
    std::size_t accepted = 0;
    const bool isWritten = wfoal::writeStagingFile(std::move(file), data, length, accepted);
    const int error = errno;
    WFOAL_DEBUG("%s: Written %i of %i", saveFunction, static_cast<int>(accepted), static_cast<int>(length));
    if (!isWritten) WFOAL_ERROR("%s: Error Writing Certificate File: %s", saveFunction, std::strerror(error));
    return isWritten;
}

PluginResult CertificateInterface::ImportPKCS12(unsigned int length, const unsigned char* data,
                                                const char* importPassword, const char* storePassword, bool&,
                                                bool& secondFlag, ClientCertHandle*& handle)
{
    WFOAL_DEBUG("%s: importPass: %s storePass: %s", __func__, importPassword, storePassword);
    secondFlag = false;
    if (data == nullptr && length > 0) return PLUGIN_FAILURE;
    try {
        return importStaged(length, data, importPassword, handle);
    } catch (const std::bad_alloc&) {
        WFOAL_ERROR("%s: Error Instantiating CertElement", __func__);
        return PLUGIN_FAILURE;
    }
}
