// Throughput of the Firehose data phase over the USB endpoint, beside a bare loop of the same bulk writes
// (the interface claimed before and released after each, the empty packet behind it) from memory.
//
// usage: usb-bench FILE ROUNDS
//
// The device 05C6:9008 is attached and its programmer runs. FILE's size is a multiple of 1 MiB. Prints a line
// per round: MiB/s of send_binary, MiB/s of the bare loop, milliseconds of processor time of each.
#include "firehose-program.hpp"

#include "core-endpoint.hpp"
#include "core.hpp"
#include "firehose-session.hpp"
#include "image-list.hpp"
#include "package-check.hpp"
#include "zepho-log.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <libusb.h>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint32_t sector = 4096;
constexpr uint32_t payload = FIREHOSE_PAYLOAD_SIZE;
constexpr unsigned transfer_timeout_ms = 30000;

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "usb-bench: %s\n", what);
    exit(1);
}

struct measured {
    double rate;         // MiB/s
    double processor_ms; // of this process, in the kernel too
};

double milliseconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

double processor_ms()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

template <typename Work> measured measure(uint64_t size, Work work)
{
    const double processor = processor_ms();
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    return {static_cast<double>(size) / (1 << 20) / taken.count(), processor_ms() - processor};
}

std::unique_ptr<unsigned char[]> read_file(const char *path, uint64_t size)
{
    auto bytes = std::make_unique<unsigned char[]>(size);
    FILE *const file = fopen(path, "rb");
    if (file == nullptr || fread(bytes.get(), 1, size, file) != size)
        fail(path);
    fclose(file);
    return bytes;
}

// `file` of -1: the bytes are in memory already; otherwise each chunk is read from the file first.
void bare_loop(const core_endpoint &ep, unsigned char *bytes, uint64_t size, int file)
{
    const auto move = [&ep](unsigned char address, unsigned char *data, int length) {
        int moved = 0;
        if (libusb_claim_interface(ep.handle, ep.interface) != 0)
            fail("claim");
        if (libusb_bulk_transfer(ep.handle, address, data, length, &moved, transfer_timeout_ms) != 0)
            fail("transfer");
        if (address == ep.out_endpoint &&
            (moved != length ||
             libusb_bulk_transfer(ep.handle, address, nullptr, 0, &moved, transfer_timeout_ms) != 0))
            fail("empty packet");
        libusb_release_interface(ep.handle, ep.interface);
    };
    for (uint64_t offset = 0; offset < size; offset += payload) {
        unsigned char *const chunk = file < 0 ? bytes + offset : bytes;
        if (file >= 0 && pread(file, chunk, payload, static_cast<off_t>(offset)) != payload)
            fail("read");
        move(ep.out_endpoint, chunk, payload);
    }
    unsigned char answer[1024] = {};
    move(ep.in_endpoint, answer, sizeof answer);
}

} // namespace

int main(int argc, char **argv)
{
    struct stat status {};
    if (argc != 3 || stat(argv[1], &status) != 0 || status.st_size == 0 || status.st_size % payload != 0)
        fail("usage: usb-bench FILE ROUNDS, with a file of whole MiB");
    const auto size = static_cast<uint64_t>(status.st_size);
    const auto bytes = read_file(argv[1], size);
    core_log_set_level(CORE_LOG_ERR);
    static modem m;
    firehose_device device{};
    static image img;
    snprintf(img.command, sizeof img.command,
             "<program SECTOR_SIZE_IN_BYTES=\"%u\" filename=\"f\" num_partition_sectors=\"1\"/>", sector);
    snprintf(img.filename, sizeof img.filename, "%s", argv[1]);
    img.file_size = size;
    img.sector_size_in_bytes = sector;
    if (firehose_open(&m, &device) != CORE_OK)
        fail("no device");
    const int file = open(argv[1], O_RDONLY | O_CLOEXEC);
    const auto round = [&](auto work) {
        if (send_command(&device, &img, false) != CORE_OK)
            fail("program request");
        return measure(size, work);
    };
    for (int i = 0; i < atoi(argv[2]); ++i) {
        const measured ours = round([&] {
            if (send_binary(&device, payload, sector, argv[1]) != CORE_OK)
                fail("send_binary");
        });
        const measured bare = round([&] { bare_loop(device.endpoint, bytes.get(), size, -1); });
        const measured reading = round([&] { bare_loop(device.endpoint, bytes.get(), size, file); });
        printf("%.1f %.1f %.1f %.1f %.1f %.1f\n", ours.rate, bare.rate, reading.rate, ours.processor_ms,
               bare.processor_ms, reading.processor_ms);
        fflush(stdout);
    }
    close(file);
    firehose_close(&device);
    return 0;
}
