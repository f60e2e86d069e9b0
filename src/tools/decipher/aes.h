// AES-128-CBC decryption of the audio stream: the key schedule that ANNOUNCE sets, and the
// decryption of one packet from a fresh copy of the stream's IV.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

inline constexpr int kAesKeySize = 16;
inline constexpr int kAesBlockSize = 16;

struct evp_cipher_ctx_st;  // the library's cipher state; only tools/decipher looks inside
struct aes_cipher_context_free {
    void operator()(evp_cipher_ctx_st* ctx) const;
};

// A decryption key and its expanded schedule. Zero-initialised it is the schedule of a
// 16-byte zero key, never an uninitialised one. One thread at a time may use it (the stream
// record's lock serialises the handler that sets it and the receiver that decrypts with it).
struct aes_key_schedule {
    std::array<uint8_t, kAesKeySize> key{};
    std::unique_ptr<evp_cipher_ctx_st, aes_cipher_context_free> ctx;  // made on first use
};

// Makes key the decryption schedule of the 16 bytes at bytes.
void aes_set_decrypt_key_128(aes_key_schedule* key, const uint8_t* bytes);

// Decrypts length bytes (rounded down to whole 16-byte blocks) from in into out with
// AES-128-CBC, starting from a private copy of the 16 bytes at iv, so no chaining state
// carries from one call to the next. Returns the bytes decrypted, or -1 when the library
// failed (out is then undefined for those bytes).
int aes_decrypt_payload(const uint8_t* in, uint8_t* out, int length, const uint8_t* iv,
                        aes_key_schedule* key);

// The sender's side of the same cipher, for the project's test sender and benchmark:
// encrypts the whole 16-byte blocks of length bytes from in into out with AES-128-CBC from
// the 16 bytes at iv, under the 16-byte key at key_bytes. Returns the bytes encrypted, or -1.
int aes_encrypt_payload(const uint8_t* in, uint8_t* out, int length, const uint8_t* iv,
                        const uint8_t* key_bytes);
