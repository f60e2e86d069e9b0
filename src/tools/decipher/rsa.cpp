#include "tools/decipher/rsa.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "tools/decipher/base64.h"
#include "tools/utils/log.h"

namespace {

struct ctx_free {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using pkey_ctx = std::unique_ptr<EVP_PKEY_CTX, ctx_free>;

struct file_close {
    void operator()(FILE* f) const { std::fclose(f); }
};

int check_key(EVP_PKEY* key) {
    pkey_ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx) return -1;
    int r = EVP_PKEY_check(ctx.get());
    return r < 0 ? -1 : r;
}

// A context for one private-key operation with the given padding, or null.
pkey_ctx private_context(EVP_PKEY* key, bool sign, int padding) {
    pkey_ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx) return nullptr;
    int init = sign ? EVP_PKEY_sign_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get());
    if (init != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) != 1) return nullptr;
    return ctx;
}

}  // namespace

void rsa_key_free::operator()(evp_pkey_st* key) const {
    EVP_PKEY_free(key);
}

rsa_key rsa_load_key() {
    std::unique_ptr<FILE, file_close> f(std::fopen(kRsaKeyFile, "rb"));
    if (!f) {
        log_plain("read error");
        return nullptr;
    }
    rsa_key key(PEM_read_PrivateKey(f.get(), nullptr, nullptr, nullptr));
    f.reset();
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
        log_plain("fail loading RSA private key");
        return nullptr;
    }
    log_plain("Loaded RSA private key (%d)\n", check_key(key.get()));
    return key;
}

bool rsa_sign_base64(int length, const uint8_t* message, char* out, size_t capacity) {
    if (capacity > 0) out[0] = '\0';
    if (length < 0) return false;
    // The key is read for its size and again for the operation: it never stays in memory
    // longer than one use.
    rsa_key sizing = rsa_load_key();
    if (!sizing) return false;
    std::vector<uint8_t> signature(static_cast<size_t>(EVP_PKEY_get_size(sizing.get())));
    sizing.reset();
    rsa_key key = rsa_load_key();
    if (!key) return false;
    pkey_ctx ctx = private_context(key.get(), true, RSA_PKCS1_PADDING);
    size_t produced = signature.size();
    if (!ctx || EVP_PKEY_sign(ctx.get(), signature.data(), &produced, message,
                              static_cast<size_t>(length)) != 1) {
        log_tagged(zor_log::kRed, "RSA private-key operation failed\n");
        return false;
    }
    std::vector<char> text((produced + 2) / 3 * 4 + 1);
    int n = base64_encode(text.data(), text.size(), signature.data(), static_cast<int>(produced));
    size_t len = n > 0 ? static_cast<size_t>(n - 1) : 0;
    // Senders expect the text without its padding.
    while (len > 0 && text[len - 1] == '=') --len;
    if (len + 1 > capacity) {
        log_tagged(zor_log::kRed, "RSA signature text does not fit (%zu)\n", len);
        return false;
    }
    std::memcpy(out, text.data(), len);
    out[len] = '\0';
    return true;
}

int rsa_decrypt_oaep(const uint8_t* cipher, int length, uint8_t* out, size_t capacity) {
    if (length < 0) return -1;
    rsa_key key = rsa_load_key();
    if (!key) return -1;
    pkey_ctx ctx = private_context(key.get(), false, RSA_PKCS1_OAEP_PADDING);
    size_t produced = capacity;
    if (!ctx ||
        EVP_PKEY_decrypt(ctx.get(), out, &produced, cipher, static_cast<size_t>(length)) != 1)
        return -1;
    return static_cast<int>(produced);
}
