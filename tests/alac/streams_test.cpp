// Real encoder streams (tests/data/alac, made by make_vectors.py): decoding must give back the
// source PCM byte for byte, through the alac_decode tool and through the decoder directly.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "alac/alac.h"
#include "alac_test_util.h"

namespace {

// What the decoder writes for the source PCM: mono samples land in the first slot of each
// two-channel sample frame, the second slot stays zero.
std::vector<uint8_t> expected_output(const stream_vector& v) {
    std::vector<uint8_t> source = read_file(alac_data_dir() + v.name + ".pcm");
    if (v.channels == 2) return source;
    const size_t width = static_cast<size_t>(v.bits / 8);
    std::vector<uint8_t> spread;
    for (size_t i = 0; i + width <= source.size(); i += width) {
        spread.insert(spread.end(), source.begin() + i, source.begin() + i + width);
        spread.insert(spread.end(), width, 0);
    }
    return spread;
}

std::vector<uint8_t> run_tool(const stream_vector& v, std::string* errors) {
    const std::string err_path = testing::TempDir() + "alac_decode_" + v.name + ".err";
    std::string command = alac_build_dir() + "/alac_decode " + alac_data_dir() + v.name + ".frames";
    for (int value : v.fmtp) command += " " + std::to_string(value);
    command += " 2>" + err_path;
    std::vector<uint8_t> out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    unsigned char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.insert(out.end(), chunk, chunk + n);
    EXPECT_EQ(pclose(pipe), 0) << command;
    std::vector<uint8_t> err = read_file(err_path);
    errors->assign(err.begin(), err.end());
    return out;
}

// Byte offset of the first difference, or -1.
long first_difference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        if (a[i] != b[i]) return static_cast<long>(i);
    }
    return a.size() == b.size() ? -1 : static_cast<long>(std::min(a.size(), b.size()));
}

TEST(AlacStreams, EveryVectorDecodesToItsSourcePcmThroughTheTool) {
    const std::vector<stream_vector> vectors = load_vectors();
    ASSERT_GE(vectors.size(), 5u) << "vectors.txt missing from " << alac_data_dir();
    for (const stream_vector& v : vectors) {
        std::string errors;
        const std::vector<uint8_t> out = run_tool(v, &errors);
        const std::vector<uint8_t> expected = expected_output(v);
        EXPECT_EQ(expected.size(), static_cast<size_t>(v.samples) * 2 * (v.bits / 8)) << v.name;
        EXPECT_EQ(out.size(), expected.size()) << v.name;
        EXPECT_EQ(first_difference(out, expected), -1) << v.name;
        EXPECT_EQ(errors, "") << v.name;
    }
}

TEST(AlacStreams, FramesDecodeTheSameFromBuffersOfTheirExactSize) {
    // Without the zero-filled work buffer behind it, the bit reader's look-ahead runs off the
    // frame's end; the bits it sees there must still count as zeros.
    for (const stream_vector& v : load_vectors()) {
        auto d = make_stream_decoder(v.fmtp);
        const auto frames = split_frames(read_file(alac_data_dir() + v.name + ".frames"));
        ASSERT_EQ(frames.size(), static_cast<size_t>(v.frames)) << v.name;
        std::vector<uint8_t> pcm;
        std::vector<uint8_t> out((d->frame_length + 3) * 2 * 4);
        for (const auto& frame : frames) {
            std::fill(out.begin(), out.end(), 0);
            int size = 0;
            alac_frame_decode(d.get(), frame.data(), frame.size(), out.data(), out.size(), &size);
            pcm.insert(pcm.end(), out.begin(), out.begin() + size);
        }
        EXPECT_EQ(first_difference(pcm, expected_output(v)), -1) << v.name;
    }
}

}  // namespace
