// Throughput of the Firehose data phase over a pseudo-terminal, beside a plain loop that writes the same
// chunks to the same peer.
//
// usage: firehose-bench FILE ROUNDS
// Prints a line per round: MiB/s of send_binary, MiB/s of the plain loop.
#include "firehose-program.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "firehose-session.hpp"
#include "zepho-log.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

static constexpr uint32_t sector = 4096;
static constexpr uint32_t payload = FIREHOSE_PAYLOAD_SIZE;
static constexpr char ack[] = "<?xml version=\"1.0\" ?>\n<data>\n<response value=\"ACK\" />\n</data>\n";

[[noreturn]] static void fail(const char *what)
{
    perror(what);
    exit(1);
}

// The peer: takes `size` bytes off the terminal, then acknowledges them, for ever.
static void run_peer(int master, uint64_t size)
{
    static char buffer[1 << 16];
    uint64_t received = 0;
    for (;;) {
        const ssize_t count = read(master, buffer, sizeof buffer);
        if (count <= 0)
            _exit(0);
        received += static_cast<uint64_t>(count);
        if (received >= size) {
            received -= size;
            if (write(master, ack, sizeof ack - 1) < 0)
                _exit(1);
        }
    }
}

static int open_terminal(int *slave)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        fail("posix_openpt");
    const char *const path = ptsname(master);
    if (path == nullptr || core_device_open(path, slave) != CORE_OK ||
        core_device_set_raw_mode(*slave) != CORE_OK)
        fail("pseudo-terminal");
    return master;
}

// The least that sends a file: reads a chunk, writes it until it is out, and waits for one answer at the end.
static void plain_loop(const char *path, int terminal, uint64_t size)
{
    const int file = open(path, O_RDONLY);
    auto *const chunk = static_cast<char *>(malloc(payload));
    if (file < 0 || chunk == nullptr)
        fail(path);
    for (uint64_t offset = 0; offset < size; offset += payload) {
        if (read(file, chunk, payload) <= 0)
            fail("read");
        size_t done = 0;
        while (done < payload) {
            const ssize_t count = write(terminal, chunk + done, payload - done);
            if (count > 0) {
                done += static_cast<size_t>(count);
                continue;
            }
            pollfd room{terminal, POLLOUT, 0};
            poll(&room, 1, 5000);
        }
    }
    char answer[1024];
    pollfd input{terminal, POLLIN, 0};
    poll(&input, 1, 5000);
    if (read(terminal, answer, sizeof answer) <= 0)
        fail("answer");
    free(chunk);
    close(file);
}

template <typename Work> static double rate(uint64_t size, Work work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    return static_cast<double>(size) / (1 << 20) / taken.count();
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: firehose-bench FILE ROUNDS\n");
        return 2;
    }
    struct stat status {};
    if (stat(argv[1], &status) != 0 || status.st_size == 0 || status.st_size % payload != 0)
        fail("the file's size must be a multiple of 1 MiB");
    const auto size = static_cast<uint64_t>(status.st_size);
    int slave = -1;
    const int master = open_terminal(&slave);
    const pid_t peer = fork();
    if (peer == 0)
        run_peer(master, size);
    core_log_set_level(CORE_LOG_ERR);
    firehose_device device{};
    device.serial_handle = slave;
    for (int i = 0; i < atoi(argv[2]); ++i) {
        const double ours = rate(size, [&] {
            if (send_binary(&device, payload, sector, argv[1]) != CORE_OK)
                fail("send_binary");
        });
        const double plain = rate(size, [&] { plain_loop(argv[1], slave, size); });
        printf("%.1f %.1f\n", ours, plain);
        fflush(stdout);
    }
    kill(peer, SIGTERM);
    waitpid(peer, nullptr, 0);
    return 0;
}
