// The walk over a binary property list: trailer, offset table and object markers. The
// type readers live in bplist_types.cpp.
#include "tools/decipher/bplist.h"

#include <cstring>

#include "tools/utils/log.h"

namespace {

constexpr char kMagic[] = "bplist00";
constexpr uint32_t kMagicSize = 8;
constexpr uint32_t kTrailerSize = 32;
// The magic, one marker and the trailer: nothing shorter can hold an object.
constexpr uint32_t kMinimumBody = 40;

// Checks the trailer's sizes and copies its fields into the context.
bool read_trailer(bplist_ctx* ctx) {
    std::memcpy(ctx->trailer, ctx->body + ctx->length - kTrailerSize, kTrailerSize);
    uint8_t offset_size = ctx->trailer[6];
    uint8_t ref_size = ctx->trailer[7];
    if (offset_size < 1 || offset_size > 8 || ref_size < 1 || ref_size > 8)
        return bplist_fail(ctx, "objLen >=1 && objLen <=8");
    ctx->object_count = bplist_readInt(ctx->trailer + 8, 8);
    ctx->top_object = bplist_readInt(ctx->trailer + 16, 8);
    ctx->offset_table_offset = bplist_readInt(ctx->trailer + 24, 8);
    return true;
}

// A UTF-16 location has been accepted only when every code unit is ASCII; narrowing
// moves each unit's low byte forward into the first half of its own storage.
uint32_t narrow_utf16(char* value, uint32_t units) {
    for (uint32_t i = 0; i < units; ++i) value[i] = value[2 * i + 1];
    return units;
}

}  // namespace

bool bplist_fail(bplist_ctx* ctx, const char* why) {
    if (ctx->error == nullptr) ctx->error = why;
    return false;
}

bool bplist_inside(bplist_ctx* ctx, uint64_t offset, uint64_t count) {
    if (offset > ctx->length || count > ctx->length - offset)
        return bplist_fail(ctx, "object outside the body");
    return true;
}

uint32_t bplist_readInt(const uint8_t* p, uint32_t size) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < size; ++i) value = (value << 8) | p[i];
    return value;
}

bplist_value bplist_readObject(bplist_ctx* ctx) {
    bplist_value none{};
    if (ctx->error != nullptr) return none;
    if (++ctx->reads > ctx->max_reads) {
        bplist_fail(ctx, "more objects read than the body can hold");
        return none;
    }
    if (!bplist_inside(ctx, ctx->cursor, 1)) return none;
    if (ctx->depth >= kBplistMaxDepth) {
        bplist_fail(ctx, "nesting deeper than 32");
        return none;
    }
    uint8_t marker = ctx->body[ctx->cursor++];
    uint32_t type = marker >> 4;
    uint32_t info = marker & 0x0f;
    if (type != 0 && info == 15) {
        // The count follows as an integer object of its own, read at this object's depth.
        // Integers up to 8 bytes only: a count cannot announce a count of its own.
        if (ctx->cursor < ctx->length && (ctx->body[ctx->cursor] & 0xfc) != 0x10)
            bplist_fail(ctx, "count is not an integer");
        info = bplist_readObject(ctx).number;
    }
    ++ctx->depth;
    bplist_value value = ctx->error ? none : bplist_type_readers[type](ctx, info);
    --ctx->depth;
    return ctx->error ? none : value;
}

bplist_value bplist_readObjectRef(bplist_ctx* ctx, uint32_t ref) {
    if (ctx->error != nullptr) return bplist_value{};
    uint32_t offset_size = ctx->trailer[6];
    uint64_t entry = ctx->offset_table_offset + uint64_t{ref} * offset_size;
    if (!bplist_inside(ctx, entry, offset_size)) return bplist_value{};
    ctx->cursor = bplist_readInt(ctx->body + entry, offset_size);
    return bplist_readObject(ctx);
}

char* bplist_find_content(char* body, uint32_t length, char** content_end, float* start_position) {
    bplist_ctx ctx{};
    ctx.body = reinterpret_cast<const uint8_t*>(body);
    ctx.cursor = kMagicSize;
    ctx.length = length;
    // Every object read costs at least one byte of references, so a sound body never
    // needs more reads than this; shared dictionaries cannot make the walk explode.
    ctx.max_reads = 2 * length + 64;

    if (body == nullptr || length < kMinimumBody) {
        bplist_fail(&ctx, "body shorter than 40 bytes");
    } else if (std::memcmp(body, kMagic, kMagicSize) != 0) {
        bplist_fail(&ctx, "strncmp(\"bplist00\", body, 8)==0");
    } else if (read_trailer(&ctx)) {
        bplist_readObjectRef(&ctx, static_cast<uint32_t>(ctx.top_object));
    }

    char* content = nullptr;
    *content_end = nullptr;
    if (ctx.error != nullptr) {
        log_tagged(zor_log::kRed, "bplist_find_content: malformed body (%s)\n", ctx.error);
        ctx.start_position = 0.0f;
    } else if (ctx.content != nullptr) {
        content = body + (ctx.content - ctx.body);
        uint32_t bytes =
            ctx.content_utf16 ? narrow_utf16(content, ctx.content_length) : ctx.content_length;
        *content_end = content + bytes;
    }
    *start_position = ctx.start_position;
    log_tagged(zor_log::kGreen, "position : %f\n", ctx.start_position);
    return content;
}
