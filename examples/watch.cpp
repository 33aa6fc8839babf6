// SPDX-License-Identifier: GPL-2.0
//
// What kelm does in a network namespace, told as it happens, with libkelm's C++ interface.
//
//     watch [NETNS]
#include <exception>
#include <iostream>
#include <libkelm/client.h>
#include <libkelm/frame.h>
#include <libkelm/names.h>

namespace
{

// One function for each kind of report.
struct teller {
    void operator()(const kelm::packet_change &change) const
    {
        const auto frame = kelm::decode_frame(change);
        if (!frame)
            return;
        const kelm::bfd_fields &bfd = frame->bfd.fields;
        std::cout << "session " << change.discriminator << ": " << frame->source.text() << " says "
                  << kelm::name_of(kelm::state_names, bfd.state) << ", diagnostic "
                  << kelm::name_of(kelm::diagnostic_names, bfd.diag) << std::endl;
    }
    void operator()(const kelm_msg_rx_sync &sync) const
    {
        std::cout << "session " << sync.header.discriminator << ": timer "
                  << (sync.timer_active != 0 ? "running" : "stopped") << std::endl;
    }
    void operator()(const kelm::session_failure &failure) const
    {
        std::cout << "session " << failure.discriminator << ": failed" << std::endl;
    }
    void operator()(const kelm::overrun &) const { std::cout << "events were lost" << std::endl; }
    void operator()(const auto &) const {} // statistics, packets, other agents' messages
};

} // namespace

int main(int argc, char *argv[])
{
    try {
        kelm::client client(argc > 1 ? argv[1] : "");
        client.subscribe(1U << (KELM_NLG_NUM_CONTROL - 1) | 1U << (KELM_NLG_NUM_NOTIFICATION - 1));
        for (const auto &report : client.dump(kelm::sync(0)))
            std::visit(teller(), report);
        for (;;)
            if (const auto event = client.next_event(std::chrono::hours(1)))
                std::visit(teller(), *event);
    } catch (const std::exception &problem) {
        std::cerr << "watch: " << problem.what() << '\n';
        return 1;
    }
}
