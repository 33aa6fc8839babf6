// SPDX-License-Identifier: GPL-2.0
//
// What a packet costs a program that does nothing but send or receive it: the measure that kelmd is
// held against. It sends BFD packets of sessions 1 to SESSIONS in turn, from a raw socket, in
// bursts at every millisecond or without pause; or receives what arrives in batches from a UDP
// socket, until nothing has come for a while.
//
// Prints the number of packets and the processor time in nanoseconds.
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/uio.h>
#include <vector>

#include "libkelm/packet.h"
#include "shared/unique_fd.h"

namespace
{

constexpr std::uint32_t peer_discriminators = 1'000'000; // theirs is ours and this
constexpr long ns_per_second = 1'000'000'000;
constexpr long ns_per_burst = 1'000'000;
constexpr timeval longest_silence{.tv_sec = 1, .tv_usec = 0};
constexpr int receive_buffer = 16 * 1024 * 1024;
constexpr std::size_t batch = 32;
constexpr std::size_t longest_payload = 2048;

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "kelm_bench_bare: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

long clock_ns(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * ns_per_second + now.tv_nsec;
}

void sleep_until(long monotonic_ns)
{
    const timespec when{monotonic_ns / ns_per_second, monotonic_ns % ns_per_second};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr) == EINTR)
        continue;
}

void report(std::uint64_t packets, long cpu_ns)
{
    std::printf("%lu %ld\n", packets, cpu_ns);
}

struct send_options {
    std::string source;
    std::string destination;
    std::uint16_t port;
    std::uint32_t sessions;
    std::uint64_t rate; // packets a second, 0: as fast as it goes
    long seconds;
};

std::vector<kelm::bytes> packets_of(const send_options &options)
{
    kelm::packet_settings settings;
    settings.source = kelm::ip_address::parse(options.source).value();
    settings.destination = kelm::ip_address::parse(options.destination).value();
    settings.source_port = 49152;
    settings.destination_port = options.port;
    settings.bfd.state = BFD_STATE_UP;
    std::vector<kelm::bytes> packets;
    for (std::uint32_t disc = 1; disc <= options.sessions; ++disc) {
        settings.bfd.my_discriminator = disc + peer_discriminators;
        settings.bfd.your_discriminator = disc;
        packets.push_back(kelm::build_packet(settings).packet);
    }
    return packets;
}

void send_all(const send_options &options)
{
    const kelm::unique_fd fd(socket(AF_INET, SOCK_RAW, IPPROTO_RAW));
    if (!fd)
        fail("socket");
    sockaddr_in to{};
    to.sin_family = AF_INET;
    std::memcpy(&to.sin_addr, kelm::ip_address::parse(options.destination)->octets.data(), 4);
    std::vector<kelm::bytes> packets = packets_of(options);
    iovec vector{};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;

    std::uint64_t sent = 0;
    const std::uint64_t burst =
        options.rate != 0 ? options.rate * ns_per_burst / ns_per_second : packets.size();
    const long cpu_before = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
    long now = clock_ns(CLOCK_MONOTONIC);
    const long end = now + options.seconds * ns_per_second;
    for (long due = now; now < end; now = clock_ns(CLOCK_MONOTONIC)) {
        for (std::uint64_t i = 0; i < burst; ++i) {
            kelm::bytes &packet = packets[sent++ % packets.size()];
            vector = {.iov_base = packet.data(), .iov_len = packet.size()};
            if (sendmsg(fd.get(), &message, MSG_DONTWAIT) < 0)
                fail("sendmsg");
        }
        if (options.rate != 0)
            sleep_until(due += ns_per_burst);
    }
    report(sent, clock_ns(CLOCK_PROCESS_CPUTIME_ID) - cpu_before);
}

void receive_all(std::uint16_t port)
{
    const kelm::unique_fd fd(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(port);
    if (!fd ||
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer) ||
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &longest_silence, sizeof longest_silence) ||
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any))
        fail("a UDP socket");

    static std::array<std::array<std::uint8_t, longest_payload>, batch> payloads;
    std::array<iovec, batch> vectors{};
    std::array<mmsghdr, batch> messages{};
    for (std::size_t i = 0; i < batch; ++i) {
        vectors[i] = {.iov_base = payloads[i].data(), .iov_len = longest_payload};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    std::uint64_t received = 0;
    const long cpu_before = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
    for (;;) {
        const int count = recvmmsg(fd.get(), messages.data(), batch, MSG_WAITFORONE, nullptr);
        if (count > 0)
            received += static_cast<std::uint64_t>(count);
        else if (errno == EAGAIN && received != 0)
            break;
        else if (errno != EAGAIN && errno != EINTR)
            fail("recvmmsg");
    }
    report(received, clock_ns(CLOCK_PROCESS_CPUTIME_ID) - cpu_before);
}

template<typename T>
T number(std::string_view text)
{
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
        errno = EINVAL;
        fail(text.data());
    }
    return value;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "send" && argc == 8) {
        send_all({argv[2], argv[3], number<std::uint16_t>(argv[4]), number<std::uint32_t>(argv[5]),
                  number<std::uint64_t>(argv[6]), number<long>(argv[7])});
    } else if (mode == "receive" && argc == 3) {
        receive_all(number<std::uint16_t>(argv[2]));
    } else {
        std::fputs("usage: kelm_bench_bare send SOURCE DESTINATION PORT SESSIONS RATE SECONDS\n"
                   "       kelm_bench_bare receive PORT\n",
                   stderr);
        return 2;
    }
}
