// One reader per object type of a binary property list, and the key match that the
// dictionary reader applies to each of its pairs.
#include <array>
#include <cstring>

#include "tools/decipher/bplist.h"
#include "tools/utils/log.h"

namespace {

constexpr char kContentLocation[] = "Content-Location";  // matched over 16 bytes
constexpr char kStartPosition[] = "Start-Position";      // matched over 14 bytes
constexpr uint32_t kContentLocationSize = 16;
constexpr uint32_t kStartPositionSize = 14;
constexpr uint32_t kDateSize = 8;
constexpr uint32_t kShownLimit = 4096;  // characters of a UTF-16 location shown in the log

// A reader of data or a string: the value is where its bytes lie.
bplist_value take_bytes(bplist_ctx* ctx, uint8_t type, uint32_t units, uint64_t bytes) {
    if (!bplist_inside(ctx, ctx->cursor, bytes)) return bplist_value{};
    bplist_value value{};
    value.type = type;
    value.position = ctx->cursor;
    value.length = units;
    ctx->cursor += static_cast<uint32_t>(bytes);
    return value;
}

uint64_t byte_length(const bplist_value& v) {
    return v.type == 6 ? uint64_t{v.length} * 2 : v.length;
}

// Keys match by their first bytes, so "Content-Location-Extra" is a location too.
bool key_begins_with(const bplist_ctx* ctx, const bplist_value& key, const char* name,
                     uint32_t size) {
    if (key.type < 4 || key.type > 6 || byte_length(key) < size) return false;
    return std::memcmp(ctx->body + key.position, name, size) == 0;
}

bool utf16_is_ascii(const bplist_ctx* ctx, const bplist_value& v) {
    const uint8_t* units = ctx->body + v.position;
    for (uint32_t i = 0; i < v.length; ++i)
        if (units[2 * i] != 0 || units[2 * i + 1] >= 0x80) return false;
    return true;
}

void note_content(bplist_ctx* ctx, const bplist_value& value) {
    if (value.type < 4 || value.type > 6) return;
    if (value.type == 6 && !utf16_is_ascii(ctx, value)) return;
    ctx->content = ctx->body + value.position;
    ctx->content_length = value.length;
    ctx->content_utf16 = value.type == 6;
    if (!ctx->content_utf16) {
        log_tagged(zor_log::kGreen, "s->content : %.*s\n", static_cast<int>(value.length),
                   reinterpret_cast<const char*>(ctx->content));
        return;
    }
    // Shown narrowed, as it will be used; a location longer than a log line is cut there.
    std::array<char, kShownLimit + 1> shown{};
    uint32_t units = value.length < kShownLimit ? value.length : kShownLimit;
    for (uint32_t i = 0; i < units; ++i) shown[i] = static_cast<char>(ctx->content[2 * i + 1]);
    log_tagged(zor_log::kGreen, "s->content : %s\n", shown.data());
}

void match_pair(bplist_ctx* ctx, const bplist_value& key, const bplist_value& value) {
    if (key_begins_with(ctx, key, kContentLocation, kContentLocationSize)) {
        note_content(ctx, value);
    } else if (key_begins_with(ctx, key, kStartPosition, kStartPositionSize)) {
        bool number = value.type == 1 || value.type == 2;
        ctx->start_position = number ? value.real : 0.0f;
    }
}

}  // namespace

bplist_value readBType0(bplist_ctx* ctx, uint32_t info) {
    bplist_value value{};
    if (info == 9) {
        value.number = 1;
    } else if (info == 8) {
        // Senders put boolean options beside the location: a false is no fault of the body.
        log_plain("[File:%s][funct:%s][line:%d] bplist unsupported false read as 0 (%s)\n",
                  __FILE__, "readBType0", __LINE__, "0");
    } else if (info != 0) {
        bplist_fail(ctx, "0");  // fill and undefined objects are not read
    }
    return value;
}

bplist_value readBType1(bplist_ctx* ctx, uint32_t info) {
    if (info > 3) {
        bplist_fail(ctx, "objLen >=1 && objLen <=8");
        return bplist_value{};
    }
    uint32_t size = 1u << info;
    if (!bplist_inside(ctx, ctx->cursor, size)) return bplist_value{};
    bplist_value value{};
    value.type = 1;
    value.number = bplist_readInt(ctx->body + ctx->cursor, size);
    // Only 8-byte integers are signed; their low 32 bits keep small negatives intact.
    value.real = size == 8 ? static_cast<float>(static_cast<int32_t>(value.number))
                           : static_cast<float>(value.number);
    ctx->cursor += size;
    return value;
}

bplist_value readBType2(bplist_ctx* ctx, uint32_t info) {
    if (info != 2 && info != 3) {
        bplist_fail(ctx, "real of a size other than 4 or 8 bytes");
        return bplist_value{};
    }
    uint32_t size = 1u << info;
    if (!bplist_inside(ctx, ctx->cursor, size)) return bplist_value{};
    const uint8_t* p = ctx->body + ctx->cursor;
    bplist_value value{};
    value.type = 2;
    if (size == 4) {
        uint32_t bits = bplist_readInt(p, 4);
        float f;
        std::memcpy(&f, &bits, sizeof(f));
        value.real = f;
    } else {
        uint64_t bits = (uint64_t{bplist_readInt(p, 4)} << 32) | bplist_readInt(p + 4, 4);
        double d;
        std::memcpy(&d, &bits, sizeof(d));
        value.real = static_cast<float>(d);
    }
    ctx->cursor += size;
    return value;
}

bplist_value readBType3(bplist_ctx* ctx, uint32_t) {
    if (bplist_inside(ctx, ctx->cursor, kDateSize)) ctx->cursor += kDateSize;
    bplist_value value{};
    value.type = 3;
    return value;
}

bplist_value readBType4(bplist_ctx* ctx, uint32_t info) {
    return take_bytes(ctx, 4, info, info);
}

bplist_value readBType5(bplist_ctx* ctx, uint32_t info) {
    return take_bytes(ctx, 5, info, info);
}

bplist_value readBType6(bplist_ctx* ctx, uint32_t info) {
    return take_bytes(ctx, 6, info, uint64_t{info} * 2);
}

bplist_value readBTypeD(bplist_ctx* ctx, uint32_t info) {
    uint32_t ref_size = ctx->trailer[7];
    uint64_t span = uint64_t{info} * ref_size;
    if (!bplist_inside(ctx, ctx->cursor, 2 * span)) return bplist_value{};
    uint32_t keys = ctx->cursor;
    uint32_t values = static_cast<uint32_t>(keys + span);
    ctx->cursor = static_cast<uint32_t>(values + span);
    for (uint32_t i = 0; i < info && ctx->error == nullptr; ++i) {
        uint32_t key_ref = bplist_readInt(ctx->body + keys + uint64_t{i} * ref_size, ref_size);
        uint32_t value_ref = bplist_readInt(ctx->body + values + uint64_t{i} * ref_size, ref_size);
        bplist_value key = bplist_readObjectRef(ctx, key_ref);
        // A dictionary value is searched here, before this pair's own key is compared.
        bplist_value value = bplist_readObjectRef(ctx, value_ref);
        if (ctx->error == nullptr) match_pair(ctx, key, value);
    }
    bplist_value value{};
    value.type = 0xd;
    return value;
}

bplist_value readBTypeX(bplist_ctx*, uint32_t info) {
    log_plain("[File:%s][funct:%s][line:%d] bplist unimplemented(%d)\n", __FILE__, "readBTypeX",
              __LINE__, static_cast<int>(info));
    return bplist_value{};
}

const bplist_reader bplist_type_readers[16] = {
    readBType0, readBType1, readBType2, readBType3, readBType4, readBType5, readBType6, readBTypeX,
    readBTypeX, readBTypeX, readBTypeX, readBTypeX, readBTypeX, readBTypeD, readBTypeX, readBTypeX,
};
