// SPDX-License-Identifier: Apache-2.0
//
// How many iterations of key derivation a PKCS#12 bundle asks for. The bundle chooses the numbers, so they are limited
// before anything is derived: otherwise one bundle keeps its reader busy for hours.
#ifndef HANDLES_PKCS12ITERATIONS_H
#define HANDLES_PKCS12ITERATIONS_H

#include <algorithm>
#include <cstdint>
#include <limits>

#include "Pkcs12Walk.h"

/// For MAC and encryption together. Tools use 1 to 1,000,000 for each of them.
constexpr std::int64_t largestPkcs12Iterations = 5'000'000;

namespace pkcs12iterations {

// A negative number counts as too many: OpenSSL cuts it to 32 bits, which may be positive.
inline std::int64_t valueOf(const ASN1_INTEGER* number)
{
    std::int64_t value = 0;
    if (number == nullptr) return 0;
    const bool isValid = ASN1_INTEGER_get_int64(&value, number) == 1 && value >= 0;
    return isValid ? value : std::numeric_limits<std::int64_t>::max();
}

inline std::int64_t product(std::int64_t a, std::int64_t b)
{
    std::int64_t result = 0;
    return __builtin_mul_overflow(a, b, &result) ? std::numeric_limits<std::int64_t>::max() : result;
}

// The parameters of an algorithm as one type; null when they are of another.
template <class Pointer>
Pointer parametersOf(const X509_ALGOR* algorithm, const ASN1_ITEM* type)
{
    return Pointer(static_cast<typename Pointer::element_type*>(
        ASN1_TYPE_unpack_sequence(type, algorithm != nullptr ? algorithm->parameter : nullptr)));
}

inline std::int64_t ofKeyDerivation(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* name = nullptr;
    X509_ALGOR_get0(&name, nullptr, nullptr, algorithm);
    if (OBJ_obj2nid(name) == NID_id_scrypt) {
        const auto scrypt = parametersOf<ScryptParametersPtr>(algorithm, ASN1_ITEM_rptr(SCRYPT_PARAMS));
        if (!scrypt) return 0;
        const std::int64_t blocks = product(valueOf(scrypt->costParameter), valueOf(scrypt->blockSize));
        return product(blocks, valueOf(scrypt->parallelizationParameter));
    }
    const auto pbkdf2 = parametersOf<Pbkdf2ParametersPtr>(algorithm, ASN1_ITEM_rptr(PBKDF2PARAM));
    return pbkdf2 ? valueOf(pbkdf2->iter) : 0;
}

// PBES2 and PBMAC1 name their key derivation in the same form.
inline std::int64_t ofEncryption(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* name = nullptr;
    X509_ALGOR_get0(&name, nullptr, nullptr, algorithm);
    if (OBJ_obj2nid(name) == NID_pbes2 || OBJ_obj2nid(name) == NID_pbmac1) {
        const auto parameters = parametersOf<Pbe2ParametersPtr>(algorithm, ASN1_ITEM_rptr(PBE2PARAM));
        return parameters ? ofKeyDerivation(parameters->keyfunc) : 0;
    }
    const auto parameters = parametersOf<PbeParametersPtr>(algorithm, ASN1_ITEM_rptr(PBEPARAM));
    return parameters ? valueOf(parameters->iter) : 0;
}

inline std::int64_t ofMac(const PKCS12* bundle)
{
    const ASN1_INTEGER* iterations = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    PKCS12_get0_mac(nullptr, &algorithm, nullptr, &iterations, bundle);
    if (algorithm == nullptr) return 0;
    return std::max(valueOf(iterations), ofEncryption(algorithm));
}

}  // namespace pkcs12iterations

/// True when opening the bundle with this password takes more than largestPkcs12Iterations. Encrypted parts may hold
/// further encrypted ones, so it decrypts, and stops before the part that exceeds the limit.
inline bool exceedsPkcs12Iterations(const PKCS12* bundle, const char* password)
{
    std::int64_t left = largestPkcs12Iterations;
    const auto take = [&left](std::int64_t iterations) {
        if (iterations > left) return false;
        left -= iterations;
        return true;
    };
    const auto mayDecrypt = [&take](const X509_ALGOR* algorithm) {
        return take(pkcs12iterations::ofEncryption(algorithm));
    };
    bool hasKey = false;  // later keys are not decrypted
    const auto visit = [&](const PKCS12_SAFEBAG* bag) {
        const int kind = PKCS12_SAFEBAG_get_nid(bag);
        if (hasKey || (kind != NID_keyBag && kind != NID_pkcs8ShroudedKeyBag)) return true;
        hasKey = true;
        if (kind == NID_keyBag) return true;
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &algorithm, nullptr);
        return mayDecrypt(algorithm);
    };
    return !take(pkcs12iterations::ofMac(bundle)) || !walkPkcs12(bundle, password, mayDecrypt, visit);
}

#endif
