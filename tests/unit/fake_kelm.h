// SPDX-License-Identifier: GPL-2.0
//
// A kelm that keeps its tables and answers requests, on the clock of an event loop. What the wire
// brings, what is lost and how slow it is, is the test's business.
#pragma once

#include <cerrno>
#include <deque>
#include <linux/netlink.h>
#include <map>
#include <set>
#include <sys/eventfd.h>

#include "kelm-agent/event_loop.h"
#include "libkelm/channel.h"
#include "libkelm/fd.h"
#include "libkelm/packet.h"
#include "libkelm_fake.h"

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
        for (const auto type : {KELM_MSG_TX_SET_PACKET, KELM_MSG_TX_DELETE_PACKET,
                                KELM_MSG_RX_SET_SESSION, KELM_MSG_RX_DELETE_SESSION})
            if (const auto found = requests.find(type); found != requests.end())
                count += found->second;
        return count;
    }

    std::unique_ptr<kelm::channel> open() { return std::make_unique<channel>(*this); }

    // A packet that arrives.
    void hear(const kelm::packet_settings &packet)
    {
        const auto built = kelm::build_packet(packet);
        kelm_msg_rx_packet_change change = {};
        change.header.discriminator = packet.bfd.your_discriminator;
        change.l3_offset = built.ip_hdr_offset;
        change.bfd_offset = built.latch_offset;
        change.packet_len = static_cast<std::uint32_t>(built.packet.size());
        const kelm::bytes body =
            libkelm_fake::operator+(libkelm_fake::bytes_of(change), built.packet);
        if (const auto found = sessions.find(change.header.discriminator); found != sessions.end())
            found->second.frame = body;
        tell(libkelm_fake::message(KELM_MSG_RX_PACKET_CHANGE, 0, 0, body));
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

    // As kelmd does when the queue was full.
    void lose()
    {
        for (auto *const each : subscribers_)
            each->lose();
    }

  private:
    class channel final : public kelm::channel
    {
      public:
        explicit channel(fake_kelm &kelm) : kelm_(kelm), readable_(eventfd(0, EFD_CLOEXEC)) {}
        ~channel() override { kelm_.subscribers_.erase(this); }

        int fd() const override { return readable_.get(); }
        std::uint32_t port_id() const override { return libkelm_fake::port_id; }
        bool is_kernel() const override { return false; }
        kelm::time_point now() const override { return kelm_.loop_.now(); }
        void wait(short, kelm::time_point) override { throw std::logic_error("waits"); }

        void set_groups(std::uint32_t mask) override
        {
            if (mask != 0)
                kelm_.subscribers_.insert(this);
        }

        bool send(kelm::byte_view datagram) override
        {
            kelm::message_reader reader(datagram);
            while (const auto msg = reader.next())
                for (auto &answer : kelm_.answer(*msg))
                    answers_.push_back({now() + kelm_.latency, std::move(answer)});
            wait_for_answers();
            return true;
        }

        outcome receive(kelm::bytes &into) override
        {
            if (unread_.empty())
                return outcome::nothing;
            into = std::move(unread_.front());
            unread_.pop_front();
            if (is_full_)
                lose();
            if (unread_.empty())
                (void)eventfd_read(readable_.get(), &drained_);
            return outcome::datagram;
        }

        void add(kelm::bytes datagram)
        {
            unread_.push_back(std::move(datagram));
            (void)eventfd_write(readable_.get(), 1);
        }

        void lose()
        {
            is_full_ = false;
            add(libkelm_fake::message(NLMSG_OVERRUN, 0, 0, {}));
        }

        void add_event(const kelm::bytes &datagram)
        {
            if (is_full_ || unread_.size() >= kelm_.room)
                is_full_ = true;
            else
                add(datagram);
        }

      private:
        void wait_for_answers()
        {
            if (timer_ || answers_.empty())
                return;
            const auto left =
                std::chrono::ceil<std::chrono::microseconds>(answers_.front().at - now());
            timer_ = kelm_.loop_.after(left, [this] {
                timer_ = {};
                while (!answers_.empty() && answers_.front().at <= now()) {
                    add(std::move(answers_.front().datagram));
                    answers_.pop_front();
                }
                wait_for_answers();
            });
        }

        struct arrival {
            kelm::time_point at;
            kelm::bytes datagram;
        };

        fake_kelm &kelm_;
        kelm::unique_fd readable_;
        eventfd_t drained_ = 0;
        bool is_full_ = false; // something was lost
        std::deque<kelm::bytes> unread_;
        std::deque<arrival> answers_; // under way
        kelm_agent::event_loop::handle timer_;
    };

    libkelm_fake::answers answer(const kelm::message &request)
    {
        const nlmsghdr &header = request.header;
        ++requests[header.nlmsg_type];
        const auto discriminator = *kelm::read_as<std::uint32_t>(request.body);
        switch (header.nlmsg_type) {
        case KELM_MSG_TX_SET_PACKET:
            packets.insert(discriminator);
            return {libkelm_fake::ack(header, 0)};
        case KELM_MSG_TX_DELETE_PACKET:
            return {libkelm_fake::ack(header, packets.erase(discriminator) == 1 ? 0 : -ENOENT)};
        case KELM_MSG_RX_SET_SESSION:
            return {libkelm_fake::ack(header, set_session(request.body))};
        case KELM_MSG_RX_DELETE_SESSION:
            return {libkelm_fake::ack(header, sessions.erase(discriminator) == 1 ? 0 : -ENOENT)};
        case KELM_MSG_GET_STATS:
            if (discriminator != 0)
                return statistics(header, discriminator);
            return {libkelm_fake::done(header)};
        case KELM_MSG_SYNC:
            return dump(header);
        default:
            return {libkelm_fake::ack(header, 0)};
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

    libkelm_fake::answers statistics(const nlmsghdr &header, std::uint32_t discriminator)
    {
        libkelm_fake::answers all;
        kelm_msg_tx_stats sent = {};
        kelm_msg_rx_stats received = {};
        sent.header.discriminator = received.header.discriminator = discriminator;
        if (packets.contains(discriminator))
            all.push_back(
                libkelm_fake::reply(header, KELM_MSG_TX_STATS, libkelm_fake::bytes_of(sent)));
        if (sessions.contains(discriminator))
            all.push_back(
                libkelm_fake::reply(header, KELM_MSG_RX_STATS, libkelm_fake::bytes_of(received)));
        all.push_back(libkelm_fake::ack(header, all.empty() ? -ENOENT : 0));
        return all;
    }

    libkelm_fake::answers dump(const nlmsghdr &header)
    {
        if (dump_error != 0)
            return {libkelm_fake::ack(header, dump_error)};
        libkelm_fake::answers all;
        for (const auto &[discriminator, each] : sessions) {
            if (!each.frame.empty())
                all.push_back(libkelm_fake::reply(header, KELM_MSG_RX_PACKET_CHANGE, each.frame));
            all.push_back(libkelm_fake::reply(
                header, KELM_MSG_RX_SYNC,
                libkelm_fake::bytes_of(kelm_msg_rx_sync{{discriminator}, each.timer_active})));
        }
        for (const std::uint32_t each : packets)
            all.push_back(libkelm_fake::reply(header, KELM_MSG_TX_SYNC,
                                              libkelm_fake::bytes_of(kelm_msg_tx_sync{{each}})));
        all.push_back(libkelm_fake::done(header));
        return all;
    }

    kelm_agent::event_loop &loop_;
    std::set<channel *> subscribers_;
};
