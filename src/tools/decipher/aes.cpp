#include "tools/decipher/aes.h"

#include <openssl/evp.h>

namespace {

EVP_CIPHER_CTX* context_of(aes_key_schedule* key) {
    if (!key->ctx) {
        key->ctx.reset(EVP_CIPHER_CTX_new());
        if (!key->ctx) return nullptr;
        // The schedule is expanded here once; each packet only sets its IV afresh.
        if (EVP_DecryptInit_ex(key->ctx.get(), EVP_aes_128_cbc(), nullptr, key->key.data(),
                               nullptr) != 1 ||
            EVP_CIPHER_CTX_set_padding(key->ctx.get(), 0) != 1) {
            key->ctx.reset();
            return nullptr;
        }
    }
    return key->ctx.get();
}

}  // namespace

void aes_cipher_context_free::operator()(evp_cipher_ctx_st* ctx) const {
    EVP_CIPHER_CTX_free(ctx);
}

void aes_set_decrypt_key_128(aes_key_schedule* key, const uint8_t* bytes) {
    for (size_t i = 0; i < kAesKeySize; ++i) key->key[i] = bytes[i];
    key->ctx.reset();  // expanded from the new key on next use
}

int aes_decrypt_payload(const uint8_t* in, uint8_t* out, int length, const uint8_t* iv,
                        aes_key_schedule* key) {
    int whole = length < 0 ? 0 : length - length % kAesBlockSize;
    if (whole == 0) return 0;
    EVP_CIPHER_CTX* ctx = context_of(key);
    if (ctx == nullptr) return -1;
    std::array<uint8_t, kAesBlockSize> fresh_iv{};
    for (size_t i = 0; i < kAesBlockSize; ++i) fresh_iv[i] = iv[i];
    int produced = 0;
    if (EVP_DecryptInit_ex(ctx, nullptr, nullptr, nullptr, fresh_iv.data()) != 1 ||
        EVP_DecryptUpdate(ctx, out, &produced, in, whole) != 1)
        return -1;
    return produced;
}

int aes_encrypt_payload(const uint8_t* in, uint8_t* out, int length, const uint8_t* iv,
                        const uint8_t* key_bytes) {
    int whole = length < 0 ? 0 : length - length % kAesBlockSize;
    if (whole == 0) return 0;
    std::unique_ptr<evp_cipher_ctx_st, aes_cipher_context_free> ctx(EVP_CIPHER_CTX_new());
    int produced = 0;
    if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key_bytes, iv) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
        EVP_EncryptUpdate(ctx.get(), out, &produced, in, whole) != 1)
        return -1;
    return produced;
}
