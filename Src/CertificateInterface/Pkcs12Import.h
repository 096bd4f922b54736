// SPDX-License-Identifier: Apache-2.0
//
// Staging a PKCS#12 bundle for the certificate manager.
#ifndef WFOAL_PKCS12IMPORT_H
#define WFOAL_PKCS12IMPORT_H

/// Writes `length` bytes as the whole file `fileName`, below the staging directory, which is made when it is missing.
/// False after a failure, which is logged.
bool saveCertFile(unsigned int length, const unsigned char* data, const char* fileName);

#endif
