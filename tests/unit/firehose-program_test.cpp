#include "firehose-program.hpp"

#include "core-device.hpp"
#include "core-file.hpp"
#include "core.hpp"
#include "fake_programmer.hpp"
#include "file-identity.hpp"
#include "image-list.hpp"
#include "libc-hooks.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "memory-limit.hpp"
#include "open-descriptors.hpp"
#include "pty.hpp"
#include "scripted-port.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

using texts = std::vector<std::string>;

static constexpr uint32_t megabyte = 1048576;

// "%u" of CORE_EIO, CORE_ENOENT, CORE_ETIMEDOUT and CORE_EGENERIC.
static const std::string io_error_unsigned = "4294967291";
static const std::string not_found_unsigned = "4294967294";
static const std::string timed_out_unsigned = "4294967186";
static const std::string failure_unsigned = "4294967194";

static const std::string frame_begin = "<?xml version=\"1.0\"?>\n<data>\n";
static const std::string frame_end = "\n</data>\n";

static const char program_line[] =
    "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\" label=\"boot\"/>";
static const char program_line_1_sector[] =
    "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"1\" label=\"boot\"/>";

// File content that is never the padding byte and differs from sector to sector.
static std::string content(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>((i * 31 + i / 251) % 127);
    return text;
}

static std::string padding(size_t size)
{
    return std::string(size, '\xFF');
}

namespace {

class Image : public testing::Test {
  protected:
    void set_command(const std::string &command)
    {
        strlcpy(img->command, command.c_str(), sizeof img->command);
    }
    void set_file(uint64_t size)
    {
        strlcpy(img->filename, "/some/file", sizeof img->filename);
        img->file_size = size;
    }
    std::string rewritten(bool is_erase = false)
    {
        owned_text text;
        result = change_num_partition_sectors_attrib(&text, img.get(), is_erase);
        return text != nullptr ? text.get() : "<null>";
    }

    std::unique_ptr<image> img = std::make_unique<image>();
    int result = 0;
    log_capture log;
};

class Program : public testing::Test {
  protected:
    Program() { device = programmer.open(); }

    // An image whose file holds `data`; 4096-byte sectors.
    image *add_image(const char *command, const std::string &data)
    {
        image *const img = add_command(command);
        strlcpy(img->filename, dir.write("image.bin", data).c_str(), sizeof img->filename);
        img->file_size = data.size();
        img->identity = identity_of(path());
        img->sector_size_in_bytes = 4096;
        return img;
    }
    image *add_command(const char *command)
    {
        image *const img = &package->images[package->image_count++];
        strlcpy(img->command, command, sizeof img->command);
        return img;
    }
    int send(uint32_t payload = megabyte)
    {
        log.clear();
        return send_commands(package.get(), device, payload, &reset_sent);
    }
    int send_file(const std::string &data, uint32_t payload, uint32_t sector)
    {
        const std::string path = dir.write("image.bin", data);
        log.clear();
        return send_binary(device, payload, sector, path.c_str());
    }
    std::string path() const { return dir.at("image.bin"); }

    temp_dir dir;
    fake_programmer programmer;
    firehose_device *device = nullptr;
    std::unique_ptr<image_list> package = std::make_unique<image_list>();
    bool reset_sent = false;
    log_capture log;
};

} // namespace

// --- the sector count

TEST_F(Image, SectorCountIsTheFilesOwn)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\" label=\"boot\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(),
              "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"1\" label=\"boot\"/>");
    EXPECT_EQ(result, 77);
}

TEST_F(Image, SectorCountOfWholeSectorsIsNotRoundedUp)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    set_file(8192);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"2\"/>");
}

TEST_F(Image, SectorCountOfOneByteMoreIsRoundedUp)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    set_file(8193);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"3\"/>");
}

TEST_F(Image, SectorCountOfAnEmptyFileIsZero)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    set_file(0);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"0\"/>");
}

TEST_F(Image, SectorCountIsASigned32BitNumber)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"1\" num_partition_sectors=\"640\"/>");
    set_file(0x80000000);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"1\" num_partition_sectors=\"-2147483648\"/>");
}

TEST_F(Image, EmptySectorCountTakesTheNextQuoteAsItsEnd)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"\" label=\"boot\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"1\"boot\"/>");
}

TEST_F(Image, EmptySectorCountAtTheEndIsASyntaxError)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(), "<null>");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(),
              "xml syntax error: <program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"\"/>");
    EXPECT_EQ(log.messages().back().file, "../firehose.c");
    EXPECT_EQ(log.messages().back().function, "change_num_partition_sectors_attrib");
}

TEST_F(Image, SectorCountWithoutItsClosingQuoteIsASyntaxError)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640 />");
    set_file(1000);
    rewritten();
    EXPECT_EQ(result, -1);
}

TEST_F(Image, CommandThatEndsBehindTheOpeningQuoteIsASyntaxError)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"");
    set_file(1000);
    rewritten();
    EXPECT_EQ(result, -1);
}

TEST_F(Image, CommandOf1023CharactersIsRewrittenWhole)
{
    const std::string head = "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"";
    const std::string tail(1023 - head.size() - 4, 'x');
    set_command(head + "640\"" + tail);
    set_file(4096000);
    EXPECT_EQ(rewritten(), head + "1000\"" + tail);
    EXPECT_EQ(result, 1024);
}

TEST_F(Image, EraseIsNotRewritten)
{
    set_command("<erase SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(true), "<erase SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    EXPECT_EQ(result, 0);
}

TEST_F(Image, CommandWithoutAFileIsNotRewritten)
{
    set_command("<read SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    EXPECT_EQ(rewritten(), "<read SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    EXPECT_EQ(result, 0);
}

TEST_F(Image, CommandWithoutASectorCountIsNotRewritten)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4096\"/>");
    EXPECT_EQ(result, 0);
}

TEST_F(Image, CommandWithoutASectorSizeIsNotRewritten)
{
    set_command("<program num_partition_sectors=\"640\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(), "<program num_partition_sectors=\"640\"/>");
    EXPECT_EQ(result, 0);
}

TEST_F(Image, CommandWithAnUnreadableSectorSizeIsNotRewritten)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4k\" num_partition_sectors=\"640\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4k\" num_partition_sectors=\"640\"/>");
    EXPECT_EQ(result, 0);
}

TEST_F(Image, CommandWithASectorSizeOfZeroIsNotRewritten)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"0\" num_partition_sectors=\"640\"/>");
    set_file(1000);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"0\" num_partition_sectors=\"640\"/>");
    EXPECT_EQ(result, 0);
}

// --- get_command_xml

TEST_F(Image, RequestIsTheCommandInItsFrame)
{
    set_command("<erase start_sector=\"0\"/>");
    owned_text text;
    EXPECT_EQ(get_command_xml(&text, img.get(), true), 63);
    EXPECT_STREQ(text.get(), "<?xml version=\"1.0\"?>\n<data>\n<erase start_sector=\"0\"/>\n</data>\n");
}

TEST_F(Image, RequestHoldsTheRewrittenCommand)
{
    set_command(program_line);
    set_file(1000);
    owned_text text;
    EXPECT_GT(get_command_xml(&text, img.get(), false), 0);
    EXPECT_EQ(text.get(), frame_begin + program_line_1_sector + frame_end);
}

TEST_F(Image, RequestFailsWithTheRewriting)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"\"/>");
    set_file(1000);
    owned_text text;
    EXPECT_EQ(get_command_xml(&text, img.get(), false), -1);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "failed changing num_partition_sectors attrib");
    EXPECT_EQ(log.messages().back().function, "get_command_xml");
}

// --- find_minimum_chunk_size

TEST(ChunkSize, IsTheFirstMultipleThatHoldsTheData)
{
    EXPECT_EQ(find_minimum_chunk_size(10000, 1048576, 4096), 12288U);
}

TEST(ChunkSize, OfWholeSectorsIsTheirOwn)
{
    EXPECT_EQ(find_minimum_chunk_size(8192, 1048576, 4096), 8192U);
}

TEST(ChunkSize, InTheLastSectorIsThePayload)
{
    EXPECT_EQ(find_minimum_chunk_size(1048576 - 4095, 1048576, 4096), 1048576U);
}

TEST(ChunkSize, WarnsOfAPayloadThatIsNoMultiple)
{
    const log_capture log;
    EXPECT_EQ(find_minimum_chunk_size(600, 2000, 512), 1024U);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"remainder for max_payload_size_to_target_in_bytes = 464"});
    EXPECT_EQ(log.messages().back().function, "find_minimum_chunk_size");
}

TEST(ChunkSize, BeyondEveryTestedMultipleIsThePayload)
{
    EXPECT_EQ(find_minimum_chunk_size(1600, 2000, 512), 2000U);
}

TEST(ChunkSize, BetweenTheLastTestedMultipleAndThePayloadIsThePayload)
{
    EXPECT_EQ(find_minimum_chunk_size(1025, 2000, 512), 2000U);
}

TEST(ChunkSize, WithOneWholeSectorInAPayloadIsThePayload)
{
    const log_capture log;
    EXPECT_EQ(find_minimum_chunk_size(600, 1000, 512), 1000U);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"remainder for max_payload_size_to_target_in_bytes = 488"});
}

TEST(ChunkSize, WithoutARemainderWarnsOfNothing)
{
    const log_capture log;
    EXPECT_EQ(find_minimum_chunk_size(600, 1024, 512), 1024U);
    EXPECT_TRUE(log.messages().empty());
}

// --- send_binary: chunks and padding

TEST_F(Program, EmptyFileSendsNothingAndWaitsForOneAck)
{
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file("", megabyte, 4096), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sent 0 bytes"});
}

TEST_F(Program, OneByteIsPaddedToASector)
{
    programmer.takes(std::string("x") + padding(4095));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file("x", megabyte, 4096), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sent 1 bytes"});
}

TEST_F(Program, ThousandBytesArePaddedToASector)
{
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1000), megabyte, 4096), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Actually sending 4096 bytes at offset 0 due to padding"));
    EXPECT_TRUE(log.has(CORE_LOG_INF, "Sent 1000 bytes"));
}

TEST_F(Program, TenThousandBytesArePaddedToThreeSectors)
{
    programmer.takes(content(10000) + padding(2288));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(10000), megabyte, 4096), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Actually sending max_payload_size_to_target_in_bytes 12288 bytes at "
                                      "offset 0 due to padding"));
}

TEST_F(Program, OneSectorIsNotPadded)
{
    programmer.takes(content(4096));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(4096), megabyte, 4096), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Actually sending 4096 bytes at offset 0 due to padding"));
}

TEST_F(Program, OneByteMoreThanASectorIsPaddedToTwo)
{
    programmer.takes(content(4097) + padding(4095));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(4097), megabyte, 4096), 0);
}

TEST_F(Program, TwoPayloadsAreTwoChunksWithoutPadding)
{
    const std::string data = content(2097152);
    programmer.takes(data.substr(0, 1048576));
    programmer.takes_zero_length_packet();
    programmer.takes(data.substr(1048576));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(data, megabyte, 4096), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sent 2097152 bytes"});
    EXPECT_FALSE(log.has(CORE_LOG_DBG, "Actually sending 1048576 bytes at offset 0 due to padding"));
}

TEST_F(Program, OneByteMoreThanAPayloadIsAPayloadAndASector)
{
    const std::string data = content(1048577);
    programmer.takes(data.substr(0, 1048576));
    programmer.takes_zero_length_packet();
    programmer.takes(data.substr(1048576) + padding(4095));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(data, megabyte, 4096), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Actually sending 4096 bytes at offset 1048576 due to padding"));
    EXPECT_TRUE(log.has(CORE_LOG_INF, "Sent 1048577 bytes"));
}

TEST_F(Program, PaddingFollowsTheDataOfTheLastChunkOnly)
{
    // The second chunk must not show what the first one left in the buffer.
    const std::string data = content(1600);
    programmer.takes(data.substr(0, 1000));
    programmer.takes(data.substr(1000) + padding(100));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(data, 1000, 700), 0);
}

TEST_F(Program, Payload2000AndSector512Sends1024For600)
{
    programmer.takes(content(600) + padding(424));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(600), 2000, 512), 0);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"remainder for max_payload_size_to_target_in_bytes = 464"});
}

TEST_F(Program, Payload2000AndSector512Sends2000For1600)
{
    programmer.takes(content(1600) + padding(400));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1600), 2000, 512), 0);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"remainder for max_payload_size_to_target_in_bytes = 464"});
}

TEST_F(Program, Payload1000AndSector512Sends1000For600)
{
    programmer.takes(content(600) + padding(400));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(600), 1000, 512), 0);
}

TEST_F(Program, SectorAsLargeAsThePayloadIsSentWhole)
{
    programmer.takes(content(1000) + padding(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1000), 2000, 2000), 0);
}

TEST_F(Program, WholePayloadsNeedNoSectorSize)
{
    const std::string data = content(2000);
    programmer.takes(data.substr(0, 1000));
    programmer.takes(data.substr(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(data, 1000, 0), 0);
}

TEST_F(Program, EmptyFileNeedsNoSectorSize)
{
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file("", 1000, 0), 0);
}

// The sizes that send_command_with_binary refuses; a file may yet grow behind the check.
TEST_F(Program, PartialPayloadWithoutASectorSizeIsNotPadded)
{
    programmer.takes(content(1500).substr(0, 1000));
    programmer.takes(content(1500).substr(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1500), 1000, 0), 0);
}

TEST_F(Program, SectorLargerThanThePayloadIsCutToIt)
{
    programmer.takes(content(600) + padding(400));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(600), 1000, 1001), 0);
}

TEST_F(Program, HugePayloadTakesNoMoreMemoryThanTheFile)
{
    limit_memory();
    programmer.takes(content(600) + padding(424));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(600), 4294967295U, 512), 0);
}

// --- send_binary: zero-length packets

TEST_F(Program, DataOfWholePacketsIsFollowedByAZeroLengthPacket)
{
    programmer.takes(content(1024));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1024), 1024, 512), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "sending zero-length packet\n"));
}

TEST_F(Program, DataOfPartialPacketsIsNot)
{
    programmer.takes(content(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1000), 1000, 500), 0);
}

TEST_F(Program, FlagIsClearedAfterSuccess)
{
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file("", 1000, 500), 0);
    EXPECT_FALSE(device->endpoint.send_zero_length_packet);
}

TEST_F(Program, FlagIsClearedAfterAFailure)
{
    programmer.takes(content(1024));
    programmer.takes_zero_length_packet(); // the flag was set
    programmer.answers(nak_chunk);
    EXPECT_EQ(send_file(content(1024), 1024, 512), -102);
    EXPECT_FALSE(device->endpoint.send_zero_length_packet);
}

TEST_F(Program, FlagIsNotSetForAFileThatCannotBeOpened)
{
    EXPECT_EQ(send_binary(device, 1000, 500, dir.at("missing/file").c_str()), -2);
    EXPECT_FALSE(device->endpoint.send_zero_length_packet);
}

TEST_F(Program, RequestsOfWholePacketsAreNotFollowedByOne)
{
    const std::string line = "<erase padding=\"" + std::string(455, 'x') + "\"/>";
    add_command(line.c_str());
    programmer.takes(frame_begin + line + frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(programmer.usb.written[0].size(), 512U);
}

// --- send_binary: failures

TEST_F(Program, MissingFileIsReported)
{
    EXPECT_EQ(send_binary(device, megabyte, 4096, dir.at("missing/file").c_str()), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to open bin file " + not_found_unsigned);
    EXPECT_EQ(log.messages().back().function, "send_binary");
}

TEST_F(Program, FileThatCannotBeLookedAtIsReported)
{
    libc::fstat = libc::fails(EIO);
    const std::string file = dir.write("image.bin", "x");
    EXPECT_EQ(send_binary(device, megabyte, 4096, file.c_str()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to open bin file " + io_error_unsigned});
}

TEST_F(Program, FileOfUnknownSizeIsReported)
{
    libc::fstat = libc::fails_in_call(2, EIO, fstat); // the first one asks what it is
    const std::string file = dir.write("image.bin", "x");
    EXPECT_EQ(send_binary(device, megabyte, 4096, file.c_str()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to get bin file size " + io_error_unsigned);
}

TEST_F(Program, BufferThatDoesNotFitIntoMemoryIsReported)
{
    const std::string file = dir.write("image.bin", "x");
    std::filesystem::resize_file(file, 1U << 30U);
    limit_memory();
    EXPECT_EQ(send_binary(device, 1U << 30U, 4096, file.c_str()), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"memory failure"});
}

TEST_F(Program, UnreadableFileIsReportedWithThePayloadSize)
{
    libc::fail_file_reads(EIO);
    const std::string file = dir.write("image.bin", content(1000));
    EXPECT_EQ(send_binary(device, megabyte, 4096, file.c_str()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "error " + io_error_unsigned + " reading 1048576 bytes (read 0 bytes)");
}

TEST_F(Program, FileThatCannotBeSoughtIsReportedWithTheOffset)
{
    libc::lseek = libc::fails(EIO);
    const std::string file = dir.write("image.bin", content(1000));
    EXPECT_EQ(send_binary(device, megabyte, 4096, file.c_str()), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "lseek error at 0");
}

namespace {

// Does something once this message is logged.
std::function<void()> deed;
std::string done_at;
core_log_pprint_fn recorder;
int do_and_record(int level, const char *file, const char *function, int line, char *message)
{
    if (message == done_at)
        deed();
    return recorder(level, file, function, line, message);
}
void do_once_logged(const std::string &message, std::function<void()> what)
{
    deed = std::move(what);
    done_at = message;
    recorder = pretty_print_function;
    pretty_print_function = do_and_record;
}

// Gives the file another size then.
void change_once_logged(const std::string &file, const std::string &message, uintmax_t size)
{
    do_once_logged(message, [file, size] { std::filesystem::resize_file(file, size); });
}

// The same size and the same inode, and another time of modification.
void touch(const std::string &file)
{
    const timespec times[] = {{1000000000, 0}, {1000000000, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

} // namespace

TEST_F(Program, FileThatShrinksEndsItWellWithoutDataOrAck)
{
    change_once_logged(path(), "Sending 1000 bytes at offset 0", 300);
    const size_t before = open_descriptors();
    EXPECT_EQ(send_file(content(1000), megabyte, 4096), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 1048576 bytes (read 300 bytes)"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Program, FileThatShrinksBehindTheFirstChunkEndsItWell)
{
    change_once_logged(path(), "Sending 1000 bytes at offset 0", 300);
    EXPECT_EQ(send_file(content(1500), 1000, 500), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 1000 bytes (read 300 bytes)"});
}

TEST_F(Program, FailedWriteEndsTheFile)
{
    const size_t before = open_descriptors();
    const std::string data = content(2000);
    programmer.takes(data.substr(0, 1000));
    programmer.takes_with(data.substr(1000), fake_programmer::timed_out, 100);
    EXPECT_EQ(send_file(data, 1000, 500), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error " + timed_out_unsigned + " sending buffer");
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Program, ZeroLengthPacketThatTimesOutEndsTheFile)
{
    programmer.takes(content(1024));
    programmer.takes_with("", fake_programmer::timed_out, 0);
    EXPECT_EQ(send_file(content(1024), 1024, 512), -110);
}

TEST_F(Program, NakAfterTheDataFails)
{
    programmer.takes(content(1000));
    programmer.answers(nak_chunk);
    EXPECT_EQ(send_file(content(1000), 1000, 500), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
}

TEST_F(Program, SilenceAfterTheDataFails)
{
    programmer.takes(content(1000));
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(send_file(content(1000), 1000, 500), -102);
}

TEST_F(Program, LogChunksAfterTheDataAreSkipped)
{
    programmer.takes(content(1000));
    programmer.answers(log_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(content(1000), 1000, 500), 0);
}

TEST(ProgramOverSerial, SendsTheFileThroughAPortThatTakesItInPieces)
{
    const temp_dir dir;
    scripted_port port;
    port.largest_write = 4095;
    const std::string data = content(100000);
    const std::string file = dir.write("image.bin", data);
    firehose_device device{};
    ASSERT_EQ(core_device_open(port.path().c_str(), &device.serial_handle), 0);
    port.takes(data + padding(2400)).sends(ack_chunk);
    EXPECT_EQ(send_binary(&device, megabyte, 4096, file.c_str()), 0);
    EXPECT_EQ(port.writes().size(), 26U);
    firehose_close(&device);
}

// On a real terminal, which takes what it has room for in its own time.
TEST(ProgramOverSerial, SendsTheFileThroughATerminal)
{
    const real_time here;
    const temp_dir dir;
    pty port;
    const std::string data = content(100000);
    const std::string file = dir.write("image.bin", data);
    firehose_device device{};
    ASSERT_EQ(core_device_open(port.path().c_str(), &device.serial_handle), 0);
    std::thread modem([&] {
        EXPECT_TRUE(port.receive(102400) == data + padding(2400));
        port.send(ack_chunk);
    });
    EXPECT_EQ(send_binary(&device, megabyte, 4096, file.c_str()), 0);
    modem.join();
    EXPECT_EQ(port.receive_until_quiet(), "");
    firehose_close(&device);
}

TEST(ProgramOverSerial, ReportsAHangUpInTheMiddle)
{
    const temp_dir dir;
    scripted_port port;
    port.largest_write = 5000;
    const std::string data = content(100000);
    const std::string file = dir.write("image.bin", data);
    firehose_device device{};
    ASSERT_EQ(core_device_open(port.path().c_str(), &device.serial_handle), 0);
    const log_capture log;
    port.takes(data.substr(0, 5000)).hangs_up();
    EXPECT_EQ(send_binary(&device, megabyte, 4096, file.c_str()), -125);
    const std::string last = log.texts(CORE_LOG_ERR).back();
    EXPECT_EQ(last, "error 4294967171 sending buffer");
    firehose_close(&device);
}

// --- progress

namespace {

class ImageProgress : public Program {
  protected:
    ImageProgress()
    {
        log_level = CORE_LOG_INF;
        core_log_set_pprint(CORE_LOG_PPRINT_NEWLINE);
        printed.clear();
    }
    int send_three_chunks()
    {
        const std::string data = content(2500);
        programmer.takes(data.substr(0, 1000));
        programmer.takes(data.substr(1000, 1000));
        programmer.takes(data.substr(2000));
        programmer.answers(ack_chunk);
        return send_file(data, 1000, 500);
    }
    // The printed lines; JSON lines without their time stamps.
    texts lines() const
    {
        texts found;
        for (const printed_line &line : printed.lines()) {
            const size_t stamp_end = line.text.find("\", ");
            const bool json = line.text.compare(0, 15, "{\"timestamp\": \"") == 0;
            found.push_back(json ? line.text.substr(stamp_end + 3) : line.text);
        }
        return found;
    }
    print_capture printed;
};

} // namespace

TEST_F(ImageProgress, IsAPercentageLineWithoutLineFeedPerChunk)
{
    EXPECT_EQ(send_three_chunks(), 0);
    EXPECT_EQ(lines(),
              (texts{"0.00% completed\r", "40.00% completed\r", "80.00% completed\r", "Sent 2500 bytes\n"}));
}

TEST_F(ImageProgress, ShowsWholePercentsOnly)
{
    const std::string data = content(3000);
    programmer.takes(data.substr(0, 1000));
    programmer.takes(data.substr(1000, 1000));
    programmer.takes(data.substr(2000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(data, 1000, 500), 0);
    EXPECT_EQ(lines()[1], "33.00% completed\r");
    EXPECT_EQ(lines()[2], "66.00% completed\r");
}

TEST_F(ImageProgress, HasNoLineForAnEmptyFile)
{
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file("", 1000, 500), 0);
    EXPECT_EQ(lines(), texts{"Sent 0 bytes\n"});
}

TEST_F(Program, ProgressIsADebugLineAtDebugLevel)
{
    const std::string data = content(1500);
    programmer.takes(data.substr(0, 1000));
    programmer.takes(data.substr(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_file(data, 1000, 500), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Sending 1000 bytes at offset 0"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Sending 500 bytes at offset 1000"));
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sent 1500 bytes"});
}

TEST_F(ImageProgress, IsAnEventPerChunkAndAFinalOneInJson)
{
    std::filesystem::current_path(dir.path());
    dir.write("image.bin", content(1500));
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    programmer.takes(content(1500).substr(0, 1000));
    programmer.takes(content(1500).substr(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_binary(device, 1000, 500, "image.bin"), 0);
    const texts all = lines();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(all[0], "\"type\": \"PROGRESS\", \"current\": 0, \"max\": 1500, \"percent\": 0, "
                      "\"description\": \"image.bin\"}\n");
    EXPECT_EQ(all[1], "\"type\": \"PROGRESS\", \"current\": 1000, \"max\": 1500, \"percent\": 66, "
                      "\"description\": \"image.bin\"}\n");
    EXPECT_NE(all[2].find("\"msg\": \"Sent 1500 bytes\""), std::string::npos);
    EXPECT_EQ(all[3], "\"type\": \"PROGRESS\", \"current\": 1500, \"max\": 1500, \"percent\": 100, "
                      "\"description\": \"image.bin\"}\n");
}

TEST_F(ImageProgress, HasNoFinalEventInJsonAfterANak)
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    programmer.takes(content(1000));
    programmer.answers(nak_chunk);
    EXPECT_EQ(send_file(content(1000), 1000, 500), -102);
    for (const std::string &line : lines())
        EXPECT_EQ(line.find("\"percent\": 100"), std::string::npos);
}

TEST_F(ImageProgress, StaysJsonAfterAnEvent)
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    EXPECT_EQ(send_three_chunks(), 0);
    EXPECT_TRUE(core_log_is_json());
}

// --- send_commands, send_command_with_binary

TEST_F(Program, ProgramLineIsFollowedByItsData)
{
    strlcpy(add_image(program_line, content(1000))->label, "boot", 1024);
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), (texts{"Updating image boot", "Sent 1000 bytes"}));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    EXPECT_EQ(log.count(CORE_LOG_DBG, frame_begin + program_line_1_sector + frame_end), 1);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "sending request: " + frame_begin + program_line_1_sector + frame_end),
              1);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "sending binary " + path()));
    EXPECT_FALSE(reset_sent);
}

TEST_F(Program, ImageWithoutALabelIsNotAnnounced)
{
    add_image(program_line, content(1000));
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sent 1000 bytes"});
}

TEST_F(Program, ImagesAreSentInTableOrderWithoutFreeSlots)
{
    add_command("<erase id=\"1\"/>");
    package->image_count += 2; // free slots
    add_command("<patch id=\"2\"/>");
    add_command("<power id=\"3\"/>");
    for (const char *line : {"<erase id=\"1\"/>", "<patch id=\"2\"/>", "<power id=\"3\"/>"}) {
        programmer.takes(frame_begin + line + frame_end);
        programmer.answers(ack_chunk);
    }
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, SlotsBehindTheCountAreNotSent)
{
    add_command("<erase id=\"1\"/>");
    package->image_count = 0;
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, EraseWithAFileIsACommandOnly)
{
    add_image("<erase SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>", content(1000));
    programmer.takes(frame_begin + "<erase SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>" +
                     frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, EraseNeedsNoSectorSize)
{
    add_image("<erase start=\"0\"/>", content(1000))->sector_size_in_bytes = 0;
    programmer.takes(frame_begin + "<erase start=\"0\"/>" + frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, ElementWhoseNameOnlyBeginsLikeEraseIsNone)
{
    add_image("<eraser/>", content(1000))->sector_size_in_bytes = 500;
    programmer.takes(frame_begin + "<eraser/>" + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000));
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(1000), 0);
}

TEST_F(Program, ProgramLineWithoutAFileIsSkipped)
{
    add_command("<program label=\"spare\" filename=\"\"/>");
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              texts{"Skip program command without filename: <program label=\"spare\" filename=\"\"/>"});
    EXPECT_EQ(log.messages().back().function, "send_command_with_binary");
}

TEST_F(Program, ElementWhoseNameOnlyBeginsLikeProgramIsSentWithoutAFile)
{
    add_command("<programmer/>");
    programmer.takes(frame_begin + "<programmer/>" + frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, PowerResetIsRemembered)
{
    add_command("<power value=\"reset\"/>");
    programmer.takes(frame_begin + "<power value=\"reset\"/>" + frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(reset_sent);
}

TEST_F(Program, PowerResetThatFailsIsRememberedToo)
{
    add_command("<power value=\"reset\"/>");
    programmer.takes(frame_begin + "<power value=\"reset\"/>" + frame_end);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_TRUE(reset_sent);
}

TEST_F(Program, ResetBehindAFailureIsNotRemembered)
{
    add_command("<erase id=\"1\"/>");
    add_command("<power value=\"reset\"/>");
    programmer.takes(frame_begin + "<erase id=\"1\"/>" + frame_end);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_FALSE(reset_sent);
}

TEST_F(Program, CommandsGoOnBehindAReset)
{
    add_command("<power value=\"reset\"/>");
    add_command("<erase id=\"1\"/>");
    programmer.takes(frame_begin + "<power value=\"reset\"/>" + frame_end);
    programmer.answers(ack_chunk);
    programmer.takes(frame_begin + "<erase id=\"1\"/>" + frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(reset_sent);
}

TEST_F(Program, RefusedCommandEndsTheWalkAndDumpsItsImage)
{
    add_command("<erase id=\"1\"/>");
    add_command("<erase id=\"2\"/>");
    programmer.takes(frame_begin + "<erase id=\"1\"/>" + frame_end);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{nak_chunk, "error sending reading ack/nack " + failure_unsigned, "error for command"}));
    const texts debug = log.texts(CORE_LOG_DBG);
    ASSERT_GE(debug.size(), 4U);
    EXPECT_EQ(texts(debug.end() - 4, debug.end()),
              (texts{"Label: <none>", "\tFilename: <none>", "\tCommand: <erase id=\"1\"/>",
                     "\tsector_size_in_bytes: 0"}));
}

TEST_F(Program, RefusedDataNamesTheFile)
{
    add_image(program_line, content(1000));
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{nak_chunk, "error in sending binary " + path()}));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "\tFilesize: 1000"));
}

TEST_F(Program, FileThatIsGoneSendsNotEvenTheCommand)
{
    add_image(program_line, content(1000));
    std::filesystem::remove(path());
    EXPECT_EQ(send(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file is not there: " + path()});
    EXPECT_TRUE(programmer.usb.written.empty());
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(Program, FileThatHasShrunkSendsNotEvenTheCommand)
{
    add_image(program_line, content(1000));
    std::filesystem::resize_file(path(), 999);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file of 1000 bytes has changed to 999: " + path()});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Program, FileOfTheSameSizeThatHasChangedSendsNotEvenTheCommand)
{
    add_image(program_line, content(1000));
    touch(path());
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file has changed: " + path()});
    EXPECT_EQ(log.messages().front().function, "check_same_file");
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Program, FileThatWasNeverValidatedSendsNotEvenTheCommand)
{
    add_image(program_line, content(1000))->identity = {};
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file of 0 bytes has changed to 1000: " + path()});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Program, FileThatIsAFifoNowSendsNotEvenTheCommand)
{
    add_image(program_line, "");
    std::filesystem::remove(path());
    ASSERT_EQ(mkfifo(path().c_str(), 0644), 0);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"'" + path() + "' is not a regular file"});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Program, EraseDoesNotNeedItsFile)
{
    add_image("<erase start=\"0\"/>", content(1000));
    std::filesystem::remove(path());
    programmer.takes(frame_begin + "<erase start=\"0\"/>" + frame_end);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, CommandThatCannotBeRewrittenSendsNothing)
{
    add_image("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"\"/>", content(1000));
    EXPECT_EQ(send(), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error in get_command_xml", "error for command"}));
}

TEST_F(Program, PartialPayloadWithoutASectorSizeSendsNotEvenTheCommand)
{
    add_image("<program label=\"a\"/>", content(1500))->sector_size_in_bytes = 0;
    EXPECT_EQ(send(1000), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"sector size 0 does not fit payload size 1000 for " + path()});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Program, SectorLargerThanThePayloadSendsNotEvenTheCommand)
{
    add_image(program_line, content(1000));
    EXPECT_EQ(send(4095), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"sector size 4096 does not fit payload size 4095 for " + path()});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Program, FileThatShrinksBehindItsCommandSendsNoData)
{
    add_image(program_line, content(1000));
    change_once_logged(path(), "sending request: " + frame_begin + program_line_1_sector + frame_end, 300);
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file of 1000 bytes has changed to 300: " + path()});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
}

TEST_F(Program, FileOfTheSameSizeThatChangesBehindItsCommandSendsNoData)
{
    add_image(program_line, content(1000));
    do_once_logged("sending request: " + frame_begin + program_line_1_sector + frame_end,
                   [this] { touch(path()); });
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file has changed: " + path()});
    EXPECT_EQ(programmer.usb.looks, 1); // not for what waits before the data
}

// The file is opened once, before its command: what takes its name behind it is not sent.
TEST_F(Program, FileThatIsReplacedBehindItsCommandSendsNoData)
{
    add_image(program_line, content(1000));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // longer than the kernel's clock ticks
    do_once_logged("sending request: " + frame_begin + program_line_1_sector + frame_end,
                   [this] { std::filesystem::rename(dir.write("other", std::string(1000, 'x')), path()); });
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file has changed: " + path()});
}

TEST_F(Program, FileOfTheSameSizeThatChangesWhileItIsSentFails)
{
    add_image(program_line, content(1000));
    do_once_logged("Sending 1000 bytes at offset 0", [this] { touch(path()); });
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file has changed: " + path()});
}

TEST_F(Program, DescriptorOfAnImageIsClosed)
{
    add_image(program_line, content(1000));
    const size_t before = open_descriptors();
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Program, FileThatGrowsWhileItIsSentFails)
{
    add_image(program_line, content(1000));
    change_once_logged(path(), "Sending 1000 bytes at offset 0", 1001);
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file of 1000 bytes has changed to 1001: " + path()});
}

TEST_F(Program, ShortReadEndsTheWalk)
{
    // The programmer still waits for the data and would take the next command for them.
    add_image("<program label=\"a\"/>", content(1000))->sector_size_in_bytes = 500;
    add_command("<erase id=\"2\"/>");
    change_once_logged(path(), "Sending 1000 bytes at offset 0", 300);
    programmer.takes(frame_begin + "<program label=\"a\"/>" + frame_end);
    programmer.answers(raw_ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error 0 reading 1048576 bytes (read 300 bytes)",
                                              "file of 1000 bytes has changed to 300: " + path()}));
}

// A file that gives less than its record says, and has not changed.
TEST_F(Program, ShortReadOfAnUnchangedFileTellsWhatWasSent)
{
    add_image("<program label=\"a\"/>", content(1500))->sector_size_in_bytes = 500;
    add_command("<erase id=\"2\"/>");
    libc::read = [reads = 0](int handle, void *data, size_t size) mutable {
        return read(handle, data, ++reads == 2 ? 300 : size);
    };
    programmer.takes(frame_begin + "<program label=\"a\"/>" + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000));
    EXPECT_EQ(send(1000), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error 0 reading 1000 bytes (read 300 bytes)",
                                              "1000 of 1500 bytes were sent of " + path()}));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Label: <none>"));
}

TEST_F(Program, ShortReadOfTheFirstPayloadTellsThatNothingWasSent)
{
    add_image(program_line, content(1000));
    libc::read = [](int handle, void *data, size_t) { return read(handle, data, 999); };
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    EXPECT_EQ(send(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error 0 reading 1048576 bytes (read 999 bytes)",
                                              "0 of 1000 bytes were sent of " + path()}));
}

// --- what still waits, and what an ACK says of itself

TEST_F(Program, NothingIsLookedForBeforeTheDataOfAnEmptyFile)
{
    add_image("<program label=\"a\"/>", "");
    programmer.takes(frame_begin + "<program label=\"a\"/>" + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.answers(ack_chunk); // waits already
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(programmer.usb.looks, 1);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sent 0 bytes"});
}

TEST_F(Program, RefusalThatWaitsBeforeTheDataIsNotFollowedByThem)
{
    add_image(program_line, content(1000));
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.left_over(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
    EXPECT_EQ(programmer.usb.looks, 2);
}

TEST_F(Program, AckWithoutRawModeDoesNotBeginTheData)
{
    add_image(program_line, content(1000));
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(ack_chunk);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{nak_chunk, "error sending reading ack/nack " + failure_unsigned, "error for command"}));
    EXPECT_EQ(programmer.usb.written.size(), 1U);
}

TEST_F(Program, AckThatSaysNothingOfRawModeBeginsAndEndsTheData)
{
    const std::string plain = "<response value=\"ACK\" />";
    add_image(program_line, content(1000));
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(plain);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(plain);
    EXPECT_EQ(send(), 0);
}

TEST_F(Program, AckWithRawModeDoesNotEndTheData)
{
    add_image(program_line, content(1000));
    programmer.takes(frame_begin + program_line_1_sector + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.takes(content(1000) + padding(3096));
    programmer.takes_zero_length_packet();
    programmer.answers(raw_ack_chunk);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{nak_chunk, "error in sending binary " + path()}));
}

TEST_F(Program, AckWithRawModeDoesNotEndACommandWithoutData)
{
    add_command("<erase id=\"1\"/>");
    programmer.takes(frame_begin + "<erase id=\"1\"/>" + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(send(), -102);
}

TEST_F(Program, AckWithRawModeDoesNotEndAnEraseThatNamesAFile)
{
    add_image("<erase start=\"0\"/>", content(1000));
    programmer.takes(frame_begin + "<erase start=\"0\"/>" + frame_end);
    programmer.answers(raw_ack_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(send(), 0);
}

// --- files of more than 4 GiB

TEST_F(Image, SectorCountOfFiveGibibytes)
{
    set_command("<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"640\"/>");
    set_file(5368709120);
    EXPECT_EQ(rewritten(), "<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"1310720\"/>");
}

TEST_F(Program, FiveGibibytesAreSentWholeEveryPayloadFromItsOffset)
{
    // Every mebibyte of the file begins with its number. In memory, where holes are read at once.
    const owned_file handle(memfd_create("image.bin", 0));
    ASSERT_EQ(ftruncate(handle.get(), 5368709120), 0);
    for (int64_t i = 0; i < 5120; ++i)
        ASSERT_EQ(pwrite(handle.get(), &i, sizeof i, i * megabyte), 8);
    const std::string file = "/proc/self/fd/" + std::to_string(handle.get());
    int64_t chunks = 0;
    int64_t wrong_chunks = 0;
    programmer.usb.sink = [&](const unsigned char *data, int length) {
        if (length == 0) // the zero-length packet
            return;
        int64_t number = -1;
        memcpy(&number, data, sizeof number);
        wrong_chunks += length == 1048576 && number == chunks ? 0 : 1;
        ++chunks;
    };
    programmer.answers(ack_chunk);
    EXPECT_EQ(send_binary(device, megabyte, 4096, file.c_str()), 0);
    EXPECT_EQ(chunks, 5120);
    EXPECT_EQ(wrong_chunks, 0);
    EXPECT_TRUE(log.has(CORE_LOG_INF, "Sent 5368709120 bytes"));
}
