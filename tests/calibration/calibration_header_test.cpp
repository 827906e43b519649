#include "calibration/calibration_header.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "calibration/read_binary.h"
#include "framegrabber/errors.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Serves a byte image; a failing stream writes nothing.
class MemoryStream : public Nvk::CXStream {
public:
    MemoryStream(Bytes bytes, bool fails = false) : m_bytes(std::move(bytes)), m_fails(fails) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* data, unsigned int size) override {
        if (!m_fails) {
            std::memcpy(data, m_bytes.data(), std::min<std::size_t>(size, m_bytes.size()));
        }
        return !m_fails;
    }

private:
    Bytes m_bytes;
    bool m_fails;
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

TEST(CalibrationHeader, WrittenBlockReadsBackWithAllFields) {
    Nvk::ClQV2CalibrationHeader writer;
    EXPECT_EQ(writer.CalculateSize(100, "abc"), 128u);
    EXPECT_EQ(writer.CalculateSize(100, nullptr), 125u);
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
    EXPECT_EQ(reader.GetHeaderVersion(), "1");
    EXPECT_EQ(reader.Description(), "hello");
    EXPECT_EQ(reader.RevisionString(), std::string("AB") + std::string(14, '\0'));
    const std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    EXPECT_EQ(reader.Date(), std::to_string(t.tm_mday) + "/" + std::to_string(t.tm_mon + 1) + "/" +
                                 std::to_string(t.tm_year + 1900));

    Bytes dated = {1, 9, 1, 126};
    dated.resize(25, 0);
    ReadBack(reader, dated, 25);
    EXPECT_EQ(reader.Date(), "9/1/2026");
}

TEST(CalibrationHeader, NullDescriptionShiftsThePayloadSize) {
    const unsigned char payload[2] = {0xAA, 0xBB};
    Nvk::ClQV2CalibrationHeader empty, null;
    empty.PutCalibrationData(payload, 2, kRevision, "");
    null.PutCalibrationData(payload, 2, kRevision, nullptr);
    const Bytes& e = empty.Buffer();
    const Bytes& n = null.Buffer();
    ASSERT_EQ(e.size(), 27u);
    ASSERT_EQ(n.size(), 27u);
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
    try {
        header.PutCalibrationData(nullptr, 0, kRevision, std::string(256, 'x').c_str());
        FAIL();
    } catch (const Nvk::ClCHeaderDesrcTooLongException& e) {
        EXPECT_STREQ(e.what(), "The description is too long.");
        EXPECT_EQ(e.GetErrorNumber(), -1);
    }
}

TEST(CalibrationHeader, WrongVersionOrNothingReadIsRejected) {
    Nvk::ClQV2CalibrationHeader header;
    Bytes block(40, 0);
    block[0] = 2;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    MemoryStream wrong(block), failing(Bytes(40, 1), true);
    try {
        header.ReadFromStream(&wrong, 40, &data, size);
        FAIL();
    } catch (const Nvk::ClHeaderFormatException& e) {
        EXPECT_STREQ(e.what(), "The header version is wrong.");
    }
    EXPECT_EQ(header.Buffer(), block);  // the bytes read stay
    Nvk::ClQV2CalibrationHeader fresh;
    EXPECT_THROW(fresh.ReadFromStream(&failing, 40, &data, size), Nvk::ClHeaderFormatException);
    EXPECT_THROW(fresh.ReadFromStream(&wrong, 0, &data, size), Nvk::ClHeaderFormatException);
    EXPECT_THROW(fresh.ReadFromStream(nullptr, 40, &data, size), Nvk::ClHeaderFormatException);
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
    Bytes bytes(2500);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    Bytes out = {1, 2, 3};
    Nvk::file::ReadBinary(path.c_str(), out);
    EXPECT_EQ(out, bytes);
    std::remove(path.c_str());

    try {
        Nvk::file::ReadBinary(path.c_str(), out);
        FAIL();
    } catch (const Nvk::CXSystemException& e) {
        EXPECT_EQ(e.GetErrorNumber(), ENOENT);
    }
    EXPECT_THROW(Nvk::file::ReadBinary(nullptr, out), Nvk::CXSystemException);
}

}  // namespace
