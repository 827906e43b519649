#include "calibration/calibration_header.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "calibration/read_binary.h"
#include "framegrabber/errors.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Serves a fixed byte image; reads past its end leave the rest untouched.
class MemoryStream : public Nvk::CXStream {
public:
    explicit MemoryStream(Bytes bytes, bool fails = false)
        : m_bytes(std::move(bytes)), m_fails(fails) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* data, unsigned int size) override {
        ++reads;
        if (m_fails) {
            return false;
        }
        std::memcpy(data, m_bytes.data(), std::min<std::size_t>(size, m_bytes.size()));
        return true;
    }
    int reads = 0;

private:
    Bytes m_bytes;
    bool m_fails;
};

unsigned char kRevision[16] = {'A', 'B'};

std::uint32_t SizeAt(const Bytes& b, std::size_t offset) {
    std::uint32_t v = 0;
    std::memcpy(&v, &b[offset], 4);
    return v;
}

struct ReadResult {
    unsigned char* data;
    unsigned int size;
};

ReadResult ReadBack(Nvk::ClQV2CalibrationHeader& header, const Bytes& block,
                    unsigned int blockSize) {
    MemoryStream stream(block);
    ReadResult r{reinterpret_cast<unsigned char*>(&r), 12345};
    header.ReadFromStream(&stream, blockSize, &r.data, r.size);
    EXPECT_EQ(stream.reads, 1);
    return r;
}

TEST(CalibrationHeader, CalculateSizeCountsDescriptionOnlyWhenPresent) {
    Nvk::ClQV2CalibrationHeader header;
    EXPECT_EQ(header.CalculateSize(100, "abc"), 128u);
    EXPECT_EQ(header.CalculateSize(100, nullptr), 125u);
    EXPECT_EQ(header.CalculateSize(0, ""), 25u);
}

TEST(CalibrationHeader, WrittenBlockReadsBackWithAllFields) {
    Nvk::ClQV2CalibrationHeader writer;
    const unsigned char payload[3] = {7, 8, 9};
    writer.PutCalibrationData(payload, 3, kRevision, "hello");
    const Bytes block = writer.Buffer();
    ASSERT_EQ(block.size(), 33u);
    EXPECT_EQ(block[0], 1);
    EXPECT_EQ(block[20], 5);
    EXPECT_EQ(SizeAt(block, 26), 3u);
    EXPECT_EQ(std::memcmp(&block[30], payload, 3), 0);

    // The memory behind the block is read too, as the scanner's is.
    Bytes memory = block;
    memory.resize(200, 0xEE);
    Nvk::ClQV2CalibrationHeader reader;
    const ReadResult r = ReadBack(reader, memory, 200);
    EXPECT_EQ(r.data, reader.Buffer().data() + 30);
    EXPECT_EQ(r.size, 3u);
    EXPECT_EQ(reader.GetHeaderVersion(), "1");
    EXPECT_EQ(reader.Description(), "hello");
    EXPECT_EQ(reader.RevisionString(), std::string("AB") + std::string(14, '\0'));

    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    EXPECT_EQ(reader.Date(), std::to_string(local.tm_mday) + "/" +
                                 std::to_string(local.tm_mon + 1) + "/" +
                                 std::to_string(local.tm_year + 1900));
}

TEST(CalibrationHeader, DateHasNoLeadingZeros) {
    Nvk::ClQV2CalibrationHeader header;
    Bytes block = {1, 9, 1, 126};
    block.resize(25, 0);
    ReadBack(header, block, 25);
    EXPECT_EQ(header.Date(), "9/1/2026");
}

TEST(CalibrationHeader, EmptyAndNullDescriptionsDiffer) {
    const unsigned char payload[2] = {0xAA, 0xBB};
    Nvk::ClQV2CalibrationHeader empty;
    empty.PutCalibrationData(payload, 2, kRevision, "");
    const Bytes& e = empty.Buffer();
    ASSERT_EQ(e.size(), 27u);
    EXPECT_EQ(e[20], 0);
    EXPECT_EQ(SizeAt(e, 21), 2u);
    EXPECT_EQ(e[25], 0xAA);

    // No length byte: the size lands at 20, the payload at 24, and one unused
    // zero byte closes the block.
    Nvk::ClQV2CalibrationHeader null;
    null.PutCalibrationData(payload, 2, kRevision, nullptr);
    const Bytes& n = null.Buffer();
    ASSERT_EQ(n.size(), 27u);
    EXPECT_EQ(SizeAt(n, 20), 2u);
    EXPECT_EQ(n[24], 0xAA);
    EXPECT_EQ(n[25], 0xBB);
    EXPECT_EQ(n[26], 0);
}

TEST(CalibrationHeader, DescriptionLimitIs255) {
    Nvk::ClQV2CalibrationHeader header;
    const std::string longest(255, 'x');
    header.PutCalibrationData(nullptr, 0, kRevision, longest.c_str());
    EXPECT_EQ(header.Buffer().size(), 280u);
    const ReadResult r = ReadBack(header, header.Buffer(), 280);
    EXPECT_EQ(header.Description(), longest);
    EXPECT_EQ(r.data, nullptr);  // payload size 0
    EXPECT_EQ(r.size, 0u);

    const std::string tooLong(256, 'x');
    try {
        header.PutCalibrationData(nullptr, 0, kRevision, tooLong.c_str());
        FAIL() << "no exception";
    } catch (const Nvk::ClCHeaderDesrcTooLongException& e) {
        EXPECT_STREQ(e.what(), "The description is too long.");
        EXPECT_EQ(e.GetErrorNumber(), -1);
    }
}

TEST(CalibrationHeader, WrongVersionOrNothingReadIsRejected) {
    Nvk::ClQV2CalibrationHeader header;
    Bytes block(40, 0);
    block[0] = 2;
    MemoryStream wrong(block);
    unsigned char* data = nullptr;
    unsigned int size = 0;
    try {
        header.ReadFromStream(&wrong, 40, &data, size);
        FAIL() << "no exception";
    } catch (const Nvk::ClHeaderFormatException& e) {
        EXPECT_STREQ(e.what(), "The header version is wrong.");
        EXPECT_EQ(e.GetErrorNumber(), -1);
    }
    EXPECT_EQ(header.Buffer(), block);  // the bytes read stay

    Nvk::ClQV2CalibrationHeader fresh;
    MemoryStream failing(Bytes(40, 1), true);
    EXPECT_THROW(fresh.ReadFromStream(&failing, 40, &data, size), Nvk::ClHeaderFormatException);
    EXPECT_THROW(fresh.ReadFromStream(&failing, 0, &data, size), Nvk::ClHeaderFormatException);
    EXPECT_THROW(fresh.ReadFromStream(nullptr, 40, &data, size), Nvk::ClHeaderFormatException);
}

TEST(CalibrationHeader, SizesThatOverrunTheBlockGiveNoPayload) {
    // Version 1 but shorter than the fixed part.
    for (unsigned int blockSize : {1u, 20u, 21u, 24u}) {
        Nvk::ClQV2CalibrationHeader header;
        Bytes block(blockSize, 0);
        block[0] = 1;
        const ReadResult r = ReadBack(header, block, blockSize);
        EXPECT_EQ(r.data, nullptr) << blockSize;
        EXPECT_EQ(r.size, 0u) << blockSize;
        EXPECT_EQ(header.Description(), "") << blockSize;
    }

    Nvk::ClQV2CalibrationHeader writer;
    const Bytes payload(10, 0x55);
    writer.PutCalibrationData(payload.data(), 10, kRevision, "desc");
    const Bytes good = writer.Buffer();  // 39 bytes

    {  // exactly fitting: accepted
        Nvk::ClQV2CalibrationHeader header;
        EXPECT_EQ(ReadBack(header, good, 39).size, 10u);
    }
    {  // one byte short for the payload
        Nvk::ClQV2CalibrationHeader header;
        const ReadResult r = ReadBack(header, good, 38);
        EXPECT_EQ(r.data, nullptr);
        EXPECT_EQ(r.size, 0u);
    }
    {  // description length running past the end
        Bytes bad = good;
        bad[20] = 255;
        Nvk::ClQV2CalibrationHeader header;
        const ReadResult r = ReadBack(header, bad, 39);
        EXPECT_EQ(r.data, nullptr);
        EXPECT_EQ(header.Description(), "");
    }
    {  // payload size near the top of the range must not wrap
        Bytes bad = good;
        const std::uint32_t huge = 0xFFFFFFF0u;
        std::memcpy(&bad[25], &huge, 4);
        Nvk::ClQV2CalibrationHeader header;
        const ReadResult r = ReadBack(header, bad, 39);
        EXPECT_EQ(r.data, nullptr);
        EXPECT_EQ(r.size, 0u);
    }
    {  // a block written with a null description is not readable as such
        Nvk::ClQV2CalibrationHeader null;
        null.PutCalibrationData(payload.data(), 10, kRevision, nullptr);
        Nvk::ClQV2CalibrationHeader header;
        const ReadResult r = ReadBack(header, null.Buffer(), 35);
        EXPECT_EQ(r.data, nullptr);
    }
}

TEST(CalibrationHeader, AccessorsOfAnEmptyHeaderAreEmpty) {
    Nvk::ClQV2CalibrationHeader header;
    EXPECT_EQ(header.GetHeaderVersion(), "");
    EXPECT_EQ(header.Date(), "");
    EXPECT_EQ(header.RevisionString(), "");
    EXPECT_EQ(header.Description(), "");
}

TEST(SXEndian, FlagMatchesTheMachine) {
    const std::uint32_t probe = 0x01020304;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    EXPECT_EQ(Nvk::SXEndian::m_fIsLittleEndianMachine, first == 0x04);
}

class ReadBinaryTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_path = ::testing::TempDir() + "kr7_read_binary_" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override { std::remove(m_path.c_str()); }
    void Write(const Bytes& bytes) {
        std::FILE* f = std::fopen(m_path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        const bool written =
            bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
        std::fclose(f);
        ASSERT_TRUE(written);
    }
    std::string m_path;
};

TEST_F(ReadBinaryTest, ReadsWholeFileAcrossChunksAndReplacesContents) {
    Bytes bytes(2500);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    Write(bytes);
    Bytes out = {1, 2, 3};
    Nvk::file::ReadBinary(m_path.c_str(), out);
    EXPECT_EQ(out, bytes);

    Write({});
    Nvk::file::ReadBinary(m_path.c_str(), out);
    EXPECT_TRUE(out.empty());
}

TEST_F(ReadBinaryTest, MissingFileThrowsWithErrno) {
    Bytes out = {1};
    try {
        Nvk::file::ReadBinary((m_path + "_missing").c_str(), out);
        FAIL() << "no exception";
    } catch (const Nvk::CXSystemException& e) {
        EXPECT_EQ(e.GetErrorNumber(), ENOENT);
    }
    EXPECT_EQ(out, Bytes{1});
    EXPECT_THROW(Nvk::file::ReadBinary(nullptr, out), Nvk::CXSystemException);
}

}  // namespace
