// SPDX-License-Identifier: Apache-2.0
//
// makeKeys FILE COUNT: writes that many RSA keys into the file. Tests share them, as making one takes a second where
// numbers have 32 bits, and many where the processor is emulated.
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>

#include "handles/OpenSsl.h"

int main(int argc, char** argv)
{
    if (argc != 3) return 2;
    const BioPtr file(BIO_new_file(argv[1], "w"));
    for (int left = std::atoi(argv[2]); left > 0; --left) {
        const EvpPkeyPtr key(EVP_RSA_gen(2048));
        if (key == nullptr ||
            PEM_write_bio_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
            std::fprintf(stderr, "makeKeys: cannot write %s\n", argv[1]);
            return 1;
        }
    }
    return 0;
}
