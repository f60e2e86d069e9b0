// The receiver's RSA private key: read from its PEM file on every use (never cached, so a key
// replaced on the box takes effect at the next request), the Apple-Response signature and the
// decryption of the announced stream key. Any thread may call; nothing here is shared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

// The box keeps its key under /opt; a build for another system (the Debian package) names its
// own place with the ZOR_KEY_FILE build setting.
#ifndef ZOR_KEY_FILE
#define ZOR_KEY_FILE "/opt/zor/app/airplay/RAOPKey.rsa"
#endif
inline constexpr const char kRsaKeyFile[] = ZOR_KEY_FILE;

struct evp_pkey_st;  // the library's key object; only tools/decipher looks inside
struct rsa_key_free {
    void operator()(evp_pkey_st* key) const;
};
using rsa_key = std::unique_ptr<evp_pkey_st, rsa_key_free>;

// Loads the RSA private key from kRsaKeyFile. Logs "read error" (file not opened), "fail
// loading RSA private key" (no RSA private key in it) or "Loaded RSA private key (%d)" with
// the consistency check's result (1 valid, 0 invalid, -1 error). Returns null on failure.
rsa_key rsa_load_key();

// Signs length message bytes with the private-key operation and PKCS #1 v1.5 type 1 padding
// (the raw operation, no digest around the message), Base64-encodes the signature and cuts its
// "=" padding: 342 characters for a 2048-bit key. Returns false, with out left empty and one
// line logged, when no key loads, the operation fails or out cannot hold the text.
bool rsa_sign_base64(int length, const uint8_t* message, char* out, size_t capacity);

// Decrypts length bytes with the private key and OAEP padding (SHA-1, MGF1-SHA-1) into out.
// Returns the plain text's length, or -1 when no key loads or the decryption fails (nothing
// logged beyond rsa_load_key's line; out is then unspecified).
int rsa_decrypt_oaep(const uint8_t* cipher, int length, uint8_t* out, size_t capacity);
