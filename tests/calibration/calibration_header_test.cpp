#include "calibration/calibration_header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <numeric>
#include <string>

#include "base/errors.h"
#include "calibration/read_binary.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Serves a byte image.
class MemoryStream : public Nvk::CXStream {
public:
    explicit MemoryStream(Bytes bytes) : m_bytes(std::move(bytes)) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* data, unsigned int size) override {
        std::memcpy(data, m_bytes.data(), std::min<std::size_t>(size, m_bytes.size()));
        return true;
    }

private:
    Bytes m_bytes;
};

unsigned char kRevision[16] = {'A', 'B'};

struct Read {
    unsigned char* data = reinterpret_cast<unsigned char*>(1);
    unsigned int size = 12345;
};

Read ReadBack(Nvk::ClQV2CalibrationHeader& header, const Bytes& block, unsigned int blockSize) {
    MemoryStream stream(block);
    Read r;
    header.ReadFromStream(&stream, blockSize, &r.data, r.size);
    return r;
}

// "number: text" of the exception E that `call` throws.
template <class E, class Call>
std::string Thrown(Call call) {
    try {
        call();
    } catch (const E& e) {
        return std::to_string(e.GetErrorNumber()) + ": " + e.what();
    }
    return "nothing thrown";
}

TEST(CalibrationHeader, WrittenBlockReadsBackWithAllFields) {
    Nvk::ClQV2CalibrationHeader writer;
    const unsigned char payload[3] = {7, 8, 9};
    writer.PutCalibrationData(payload, 3, kRevision, "hello");
    Bytes memory = writer.Buffer();
    ASSERT_EQ(memory.size(), 33u);
    EXPECT_EQ(memory[20], 5);
    EXPECT_EQ(memory[26], 3);  // payload size, little-endian
    EXPECT_EQ(memory[30], 7);

    memory.resize(200, 0xEE);  // the rest of the scanner's memory is read too
    Nvk::ClQV2CalibrationHeader reader;
    const Read r = ReadBack(reader, memory, 200);
    EXPECT_EQ(r.data, reader.Buffer().data() + 30);
    EXPECT_EQ(r.size, 3u);
    EXPECT_EQ(reader.Description(), "hello");
    EXPECT_EQ(reader.RevisionString(), std::string("AB") + std::string(14, '\0'));
}

TEST(CalibrationHeader, NullDescriptionShiftsThePayloadSize) {
    const unsigned char payload[2] = {0xAA, 0xBB};
    Nvk::ClQV2CalibrationHeader empty, null;
    empty.PutCalibrationData(payload, 2, kRevision, "");
    null.PutCalibrationData(payload, 2, kRevision, nullptr);
    const Bytes& e = empty.Buffer();
    const Bytes& n = null.Buffer();
    EXPECT_EQ(Bytes(e.begin() + 20, e.end()), (Bytes{0, 2, 0, 0, 0, 0xAA, 0xBB}));
    EXPECT_EQ(Bytes(n.begin() + 20, n.end()), (Bytes{2, 0, 0, 0, 0xAA, 0xBB, 0}));
}

TEST(CalibrationHeader, DescriptionLimitIs255) {
    Nvk::ClQV2CalibrationHeader header;
    const std::string longest(255, 'x');
    header.PutCalibrationData(nullptr, 0, kRevision, longest.c_str());
    const Read r = ReadBack(header, header.Buffer(), 280);
    EXPECT_EQ(header.Description(), longest);
    EXPECT_EQ(r.data, nullptr);  // payload size 0
    EXPECT_EQ(r.size, 0u);
    EXPECT_EQ("-1: The description is too long.", Thrown<Nvk::ClCHeaderDesrcTooLongException>([&] {
                  header.PutCalibrationData(nullptr, 0, kRevision, std::string(256, 'x').c_str());
              }));
}

TEST(CalibrationHeader, WrongVersionOrNothingReadIsRejected) {
    Nvk::ClQV2CalibrationHeader header, fresh;
    Bytes block(40, 0);
    block[0] = 2;
    EXPECT_EQ("-1: The header version is wrong.",
              Thrown<Nvk::ClHeaderFormatException>([&] { ReadBack(header, block, 40); }));
    EXPECT_EQ(header.Buffer(), block);  // the bytes read stay
    EXPECT_THROW(ReadBack(fresh, block, 0), Nvk::ClHeaderFormatException);
    unsigned int size = 0;
    EXPECT_THROW(fresh.ReadFromStream(nullptr, 40, nullptr, size), Nvk::ClHeaderFormatException);
}

TEST(CalibrationHeader, SizesThatOverrunTheBlockGiveNoPayload) {
    Nvk::ClQV2CalibrationHeader writer, nullWriter;
    const Bytes payload(10, 0x55);
    writer.PutCalibrationData(payload.data(), 10, kRevision, "desc");
    nullWriter.PutCalibrationData(payload.data(), 10, kRevision, nullptr);
    const Bytes good = writer.Buffer();  // 39 bytes, size at 25
    Bytes longName = good, hugeSize = good, shortBlock(21, 0);
    longName[20] = 255;
    hugeSize[28] = 0xFF;
    shortBlock[0] = 1;
    struct Case {
        Bytes block;
        unsigned int blockSize;
        unsigned int expected;
    } cases[] = {
        {good, 39, 10},      {good, 38, 0},      {longName, 39, 0},           {hugeSize, 39, 0},
        {shortBlock, 21, 0}, {shortBlock, 1, 0}, {nullWriter.Buffer(), 35, 0}};
    for (const Case& c : cases) {
        Nvk::ClQV2CalibrationHeader header;  // exact-size buffer: overreads show under ASan
        const Read r = ReadBack(header, c.block, c.blockSize);
        EXPECT_EQ(r.size, c.expected) << c.blockSize;
        EXPECT_EQ(r.data != nullptr, c.expected != 0) << c.blockSize;
        header.Description();
        header.RevisionString();
    }
    Nvk::ClQV2CalibrationHeader empty;
    EXPECT_EQ(empty.Date() + empty.Description() + empty.RevisionString(), "");
}

TEST(ReadBinary, ReadsWholeFileOrThrowsWithErrno) {
    const std::string path = ::testing::TempDir() + "kr7_read_binary.bin";
    Bytes bytes(2500);  // more than one read chunk
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(3));
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), 2500);
    Bytes out = {1, 2, 3};
    Nvk::file::ReadBinary(path.c_str(), out);
    EXPECT_EQ(out, bytes);
    std::remove(path.c_str());
    EXPECT_EQ(std::to_string(ENOENT) + ": " + std::strerror(ENOENT),
              Thrown<Nvk::CXSystemException>([&] { Nvk::file::ReadBinary(path.c_str(), out); }));
    EXPECT_THROW(Nvk::file::ReadBinary(nullptr, out), Nvk::CXSystemException);
}

}  // namespace
