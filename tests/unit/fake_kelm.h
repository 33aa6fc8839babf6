// SPDX-License-Identifier: GPL-2.0
//
// A kelm that keeps its tables and answers requests, on the clock of an event loop. What the wire
// brings, what is lost and how slow it is, is the test's business.
#pragma once

#include <cerrno>
#include <map>
#include <set>
#include <sys/eventfd.h>

#include "kelm-agent/event_loop.h"
#include "libkelm/packet.h"
#include "libkelm_fake.h"

namespace libkelm_fake
{

class fake_kelm
{
  public:
    struct session {
        bool timer_active = false;
        kelm::bytes failure;
        kelm::bytes frame; // a packet change, as passed up last
    };

    explicit fake_kelm(kelm_agent::event_loop &loop) : loop_(loop) {}

    std::map<std::uint32_t, session> sessions;
    std::set<std::uint32_t> packets;
    std::map<std::uint16_t, std::size_t> requests; // how many of each type
    std::chrono::microseconds latency{100};        // of answers
    int dump_error = 0;                            // a negative error number: dumps are refused
    std::size_t room = 10'000;                     // of the subscriber's queue, in events

    std::size_t changes() const
    {
        std::size_t count = 0;
        for (const auto &[type, number] : requests)
            if (type == KELM_MSG_TX_SET_PACKET || type == KELM_MSG_TX_DELETE_PACKET ||
                type == KELM_MSG_RX_SET_SESSION || type == KELM_MSG_RX_DELETE_SESSION)
                count += number;
        return count;
    }

    std::unique_ptr<kelm::channel> open() { return std::make_unique<connection>(*this); }

    // A packet that arrives.
    void hear(const kelm::packet_settings &packet)
    {
        const auto built = kelm::build_packet(packet);
        kelm_msg_rx_packet_change change = {};
        change.header.discriminator = packet.bfd.your_discriminator;
        change.l3_offset = built.ip_hdr_offset;
        change.bfd_offset = built.latch_offset;
        change.packet_len = static_cast<std::uint32_t>(built.packet.size());
        const kelm::bytes body = bytes_of(change) + built.packet;
        if (const auto found = sessions.find(change.header.discriminator); found != sessions.end())
            found->second.frame = body;
        tell(message(KELM_MSG_RX_PACKET_CHANGE, 0, 0, body));
    }

    // A detection timer that expires.
    void fail(std::uint32_t discriminator)
    {
        session &failed = sessions.at(discriminator);
        failed.timer_active = false;
        tell(failed.failure);
    }

    void tell(const kelm::bytes &event)
    {
        for (auto *const each : subscribers_)
            each->add_event(event);
    }

    void lose()
    {
        for (auto *const each : subscribers_)
            each->lose();
    }

  private:
    // To requests or, once it has subscribed, to events.
    class connection final : public fake_channel
    {
      public:
        explicit connection(fake_kelm &kelm) : kelm_(kelm)
        {
            handle = [this](const seen &request) {
                latency = kelm_.latency;
                return kelm_.answer(request);
            };
        }
        ~connection() override { kelm_.subscribers_.erase(this); }

        int fd() const override { return readable_.get(); }
        kelm::time_point now() const override { return kelm_.loop_.now(); }

        void set_groups(std::uint32_t mask) override
        {
            if (mask != 0)
                kelm_.subscribers_.insert(this);
        }

        // As kelmd does it: the loss is told where there is room again.
        void add_event(const kelm::bytes &event)
        {
            is_full_ = is_full_ || unread().size() >= kelm_.room;
            if (!is_full_)
                fake_channel::tell(event);
        }

        outcome receive(kelm::bytes &into) override
        {
            const outcome got = fake_channel::receive(into);
            if (got != outcome::nothing && std::exchange(is_full_, false))
                lose();
            show_readiness();
            return got;
        }

      private:
        void arrive(outcome what, const kelm::bytes &datagram) override
        {
            fake_channel::arrive(what, datagram);
            show_readiness();
        }

        void show_readiness()
        {
            eventfd_t any = 0;
            (void)eventfd_read(readable_.get(), &any);
            timer_ = {};
            if (unread().empty())
                return;
            if (const auto at = unread().front().at; at > now())
                timer_ = kelm_.loop_.after(std::chrono::ceil<std::chrono::microseconds>(at - now()),
                                           [this] { show_readiness(); });
            else
                (void)eventfd_write(readable_.get(), 1);
        }

        fake_kelm &kelm_;
        kelm::unique_fd readable_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
        bool is_full_ = false; // something was lost
        kelm_agent::event_loop::handle timer_;
    };

    answers answer(const seen &request)
    {
        const nlmsghdr &header = request.header;
        ++requests[header.nlmsg_type];
        const auto discriminator = *kelm::read_as<std::uint32_t>(request.body);
        switch (header.nlmsg_type) {
        case KELM_MSG_TX_SET_PACKET:
            packets.insert(discriminator);
            return {ack(header, 0)};
        case KELM_MSG_TX_DELETE_PACKET:
            return {ack(header, packets.erase(discriminator) == 1 ? 0 : -ENOENT)};
        case KELM_MSG_RX_SET_SESSION:
            return {ack(header, set_session(request.body))};
        case KELM_MSG_RX_DELETE_SESSION:
            return {ack(header, sessions.erase(discriminator) == 1 ? 0 : -ENOENT)};
        case KELM_MSG_GET_STATS:
            return discriminator != 0 ? statistics(header, discriminator) : agree(request);
        case KELM_MSG_SYNC:
            return dump(header);
        default:
            return agree(request);
        }
    }

    int set_session(kelm::byte_view body)
    {
        kelm_msg_rx_set_session wanted = {};
        if (!kelm::read_into(wanted, body))
            return -EINVAL;
        for (const std::uint32_t latched : wanted.latch_tx_packets)
            if (latched != 0 && !packets.contains(latched))
                return -ENXIO;
        session &set = sessions[wanted.header.discriminator];
        set.timer_active = (wanted.flags & KELM_RX_TIMER_ACTIVE) != 0;
        const kelm::byte_view failure = body.subspan(sizeof wanted);
        set.failure.assign(failure.begin(), failure.end());
        return 0;
    }

    answers statistics(const nlmsghdr &header, std::uint32_t discriminator) const
    {
        const auto all_zero = [&](std::uint16_t type, std::size_t size) {
            kelm::bytes body = bytes_of(discriminator);
            body.resize(size);
            return reply(header, type, body);
        };
        answers all;
        if (packets.contains(discriminator))
            all.push_back(all_zero(KELM_MSG_TX_STATS, sizeof(kelm_msg_tx_stats)));
        if (sessions.contains(discriminator))
            all.push_back(all_zero(KELM_MSG_RX_STATS, sizeof(kelm_msg_rx_stats)));
        all.push_back(ack(header, all.empty() ? -ENOENT : 0));
        return all;
    }

    answers dump(const nlmsghdr &header) const
    {
        if (dump_error != 0)
            return {ack(header, dump_error)};
        answers all;
        for (const auto &[discriminator, each] : sessions) {
            if (!each.frame.empty())
                all.push_back(reply(header, KELM_MSG_RX_PACKET_CHANGE, each.frame));
            all.push_back(reply(header, KELM_MSG_RX_SYNC,
                                bytes_of(kelm_msg_rx_sync{{discriminator}, each.timer_active})));
        }
        for (const std::uint32_t each : packets)
            all.push_back(reply(header, KELM_MSG_TX_SYNC, bytes_of(kelm_msg_tx_sync{{each}})));
        all.push_back(done(header));
        return all;
    }

    kelm_agent::event_loop &loop_;
    std::set<connection *> subscribers_;
};

} // namespace libkelm_fake
