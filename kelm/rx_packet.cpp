// SPDX-License-Identifier: GPL-2.0
//
// The receive path: one datagram is validated, matched to its session, authenticated, measured;
// it restarts the session's detection timer, and goes up to the agent only if the state machine
// must see it. A frame that goes up is not copied: its own buffer becomes the message.
//
// Softirq context, on several processors at once. The session's lock is held from the lookup to
// the end, the send included.
#include "kelm/rx_packet.h"

#include <cstring>

#include "kelm/byte_order.h"
#include "kelm/guard.h"
#include "kelm/kelm_bfd_common_utils.h"
#include "kelm/log.h"
#include "kelm/netlink.h"
#include "kelm/rx_detection.h"
#include "kelm/rx_table.h"
#include "kelm/skb_ptr.h"
#include "kelm/tx_schedule.h"
#include "platform/clock.h"
#include "platform/module.h"
#include "platform/socket.h"

namespace
{
constinit relaxed<bool> first_packet(true);

// Of how many datagrams the sessions are fetched ahead. They have to stay in the nearest cache.
constexpr std::size_t most_ahead = 32;

constexpr unsigned packet_change_headroom = NLMSG_HDRLEN + sizeof(kelm_msg_rx_packet_change);

// A received datagram as part of its frame. Pointers into a buffer are good until it is expanded.
struct received_frame {
    const std::uint8_t *link_header;
    std::uint8_t *bfd; // the BFD control packet
    std::uint32_t bfd_len;
    frame_info info;

    explicit received_frame(const sk_buff *skb)
        : link_header(skb_mac_header(skb)), bfd(skb_data(skb)),
          bfd_len(skb_len(skb)), info{skb_iif(skb), skb_member_ifindex(skb),
                                      offset_of(skb_network_header(skb)), offset_of(bfd)}
    {
    }
    [[nodiscard]] std::uint32_t offset_of(const std::uint8_t *header) const
    {
        return static_cast<std::uint32_t>(header - link_header);
    }
    [[nodiscard]] std::size_t len() const { return std::size_t{info.bfd_offset} + bfd_len; }
    [[nodiscard]] bfd_ctrl *header() const { return reinterpret_cast<bfd_ctrl *>(bfd); }
    [[nodiscard]] const std::uint8_t *ip_header() const { return link_header + info.l3_offset; }
    [[nodiscard]] std::uint32_t your_discriminator() const
    {
        return load_be32(bfd + offsetof(bfd_ctrl, your_discriminator));
    }
    // How much of the packet counts as its content: with authentication also type and length of
    // the section, but neither key id nor sequence number nor digest.
    [[nodiscard]] std::size_t content_len() const
    {
        return bfd[1] & BFD_FLAG_AUTH_PRESENT ? BFD_CTRL_LEN + 2 : BFD_CTRL_LEN;
    }
};

void r_trace(kelm_trace_type type, std::uint32_t disc, const char *str)
{
    rx_log(disc, type == KELM_VLOG ? 3 : 2, "%s", str);
}

// The library stores a sequence number before it compares the digest. In strict mode the session's
// own changes only with a packet that is valid, so that a forged one cannot lock the peer out.
bool auth_valid(rx_session *session, const received_frame &frame)
{
    std::uint32_t seq_num = session->seq_num;
    rx_counters &counters = session->stats.counters;
    const bool valid = kelm_auth_valid(
        &session->auth, session->auth_key, &seq_num, &counters.num_auth_fail,
        &counters.num_auth_type_mismatch, session->multiplier, frame.header(), frame.ip_header(),
        frame.info.ifindex, static_cast<std::int32_t>(frame.bfd_len) - BFD_CTRL_LEN, r_trace);
    if (valid || !kelm_strict)
        session->seq_num = seq_num;
    return valid;
}

bool content_changed(const rx_session *session, const received_frame &frame)
{
    const std::size_t len = frame.content_len();
    // The stored packet may be shorter: frames of equal length can have longer headers.
    return session->packet.len - session->info.bfd_offset < len ||
           std::memcmp(frame.bfd, session->packet.data + session->info.bfd_offset, len) != 0;
}

// Whether the agent must see the packet.
bool must_pass_up(const rx_session *session, const received_frame &frame)
{
    const std::uint32_t disc = session->discriminator;
    if (frame.len() != session->packet.len) {
        rx_log(disc, 2, "Passing up - %lu != %lu", frame.len(), session->packet.len);
        return true;
    }
    if (frame.info.member_ifindex != session->info.member_ifindex) {
        rx_log(disc, 2, "Passing up - member link changed");
        return true;
    }
    if (session->mydisc_rtt) // a time stamp is no change
        store_be32(frame.bfd + offsetof(bfd_ctrl, my_discriminator), 0);
    if (content_changed(session, frame)) {
        rx_log(disc, 2, "Passing up - content changed");
        return true;
    }
    if (frame.bfd[1] & BFD_FLAG_POLL) {
        rx_log(disc, 2, "Passing up - poll bit set");
        return true;
    }
    if (frame.bfd[1] & BFD_FLAG_FINAL) {
        rx_log(disc, 2, "Passing up - final bit set");
        return true;
    }
    return false;
}

// Keeps a copy of the frame as the session's last one. False without memory: the session then has
// none, so that the next packet is passed up.
bool store_frame(rx_session *session, const received_frame &frame)
{
    ++session->stats.counters.num_passup;
    session->info = frame.info;
    if (!store(session->packet, session->room, frame.link_header, frame.len())) {
        ++session->stats.counters.packet_alloc_fail;
        forget(session->packet, session->room);
        return false;
    }
    return true;
}

void log_buffer(std::uint32_t disc, const sk_buff *skb, const std::uint8_t *bfd)
{
    rx_log(disc, 3, "skb->data %p ->head %p bfd %p", static_cast<void *>(skb_data(skb)),
           static_cast<void *>(skb_head(skb)), static_cast<const void *>(bfd));
}

// Writes the message's headers in front of the frame, in the headroom made for them.
void push_headers(sk_buff *skb, std::uint32_t disc)
{
    const received_frame frame(skb);
    skb_push(skb, frame.info.bfd_offset);
    rx_log(disc, 2, "Packet is for session %u", disc);
    log_buffer(disc, skb, frame.bfd);

    const kelm_msg_rx_packet_change msg = packet_change_message(disc, frame.info, frame.len());
    std::memcpy(skb_push(skb, sizeof(msg)), &msg, sizeof(msg));
    log_buffer(disc, skb, frame.bfd);
    rx_log(disc, 3, "l3_offset %u bfd_offset %u packet_len %zu member_ifindex %d", msg.l3_offset,
           msg.bfd_offset, frame.len(), frame.info.member_ifindex);

    nlmsghdr hdr = {};
    hdr.nlmsg_len = packet_change_headroom + msg.packet_len;
    hdr.nlmsg_type = KELM_MSG_RX_PACKET_CHANGE;
    std::memcpy(skb_push(skb, sizeof(hdr)), &hdr, sizeof(hdr));
}

// Turns the datagram into a message to the agent. session, if any, is locked.
void pass_up_packet(kelm_vrf *vrf, rx_session *session, skb_ptr &skb, const received_frame &frame)
{
    const std::uint32_t disc = frame.your_discriminator();
    rx_log(disc, 2, "Passing packet for session %u to SSM vrf %p", disc, static_cast<void *>(vrf));
    if (session != nullptr && !store_frame(session, frame))
        return;
    const int err = pskb_expand_head(skb.get(), packet_change_headroom, 0, GFP_ATOMIC);
    if (err != 0) {
        KELM_LOG("Rx", 2, "failed to expand skb %d", err);
        if (session != nullptr)
            ++session->stats.counters.pskb_expand_fail;
        else
            count(vrf->stats.pskb_expand_fail);
        skb.drop();
        return;
    }
    push_headers(skb.get(), disc);
    kelm_netlink_send_packet_change(vrf, skb.release());
}

// A packet whose session is known and locked.
void session_packet(kelm_vrf *vrf, rx_session *session, skb_ptr &skb, const received_frame &frame)
{
    if (!auth_valid(session, frame)) {
        rx_log(session->discriminator, 2, "Packet failed auth check");
        ++session->stats.counters.num_auth_fail;
        return;
    }
    record_reception(session,
                     load_host<std::uint32_t>(frame.bfd + offsetof(bfd_ctrl, my_discriminator)));
    restart_detection(session);
    if (must_pass_up(session, frame))
        pass_up_packet(vrf, session, skb, frame);
}

// A packet without a session, for the agent to make something of. In strict mode a flood of them
// does not become one of messages.
void pass_up_stranger(kelm_vrf *vrf, skb_ptr &skb, const received_frame &frame)
{
    const auto now = static_cast<std::uint32_t>(get_jiffies_64() * jiffies_to_usecs(1));
    if (kelm_strict && !vrf->strangers.admit(now)) {
        count(vrf->stats.num_not_passed_up);
        skb.drop();
        return;
    }
    pass_up_packet(vrf, nullptr, skb, frame);
}

// A valid packet: with a session, or without.
void valid_packet(kelm_vrf *vrf, skb_ptr &skb, const received_frame &frame)
{
    const std::uint32_t disc = frame.your_discriminator();
    if (disc == 0) {
        KELM_LOG("Rx", 2, "Passing up - discriminator==0");
        count(vrf->stats.num_passup_disc_0);
        pass_up_stranger(vrf, skb, frame);
        return;
    }
    softirq_guard table(rx_lock);
    if (rx_session *session = vrf->sessions.find(disc)) {
        prefetch_for_packet(*session);
        softirq_guard lock(session->lock);
        table.unlock();
        session_packet(vrf, session, skb, frame);
        return;
    }
    table.unlock();
    rx_log(disc, 2, "Passing up - no session %u", disc);
    count(vrf->stats.num_invalid_sessions);
    pass_up_stranger(vrf, skb, frame);
}

// Traffic from outside proves that the system can transmit too.
void note_first_packet()
{
    if (!first_packet)
        return;
    first_packet = false;
    KELM_LOG("Rx", 2, "Tx path ready from kernel");
    kelm_set_tx_path_ready();
}
} // namespace

kelm_msg_rx_packet_change packet_change_message(std::uint32_t discriminator, const frame_info &info,
                                                std::size_t frame_len)
{
    kelm_msg_rx_packet_change msg = {};
    msg.header.discriminator = discriminator;
    msg.ifindex = static_cast<std::uint32_t>(info.ifindex);
    msg.member_ifindex = static_cast<std::uint32_t>(info.member_ifindex);
    msg.l3_offset = info.l3_offset;
    msg.bfd_offset = info.bfd_offset;
    msg.packet_len = static_cast<std::uint32_t>(frame_len);
    return msg;
}

void rx_packet_init()
{
    first_packet = true;
}

void rx_data_ahead(sock *sk, const kvec *payloads, std::size_t count)
{
    auto *vrf = static_cast<kelm_vrf *>(sock_user_data(sk));
    std::uint32_t discs[most_ahead];
    std::size_t found = 0;
    for (std::size_t i = 0; i < count && found < most_ahead; ++i) {
        if (payloads[i].iov_len >= BFD_CTRL_LEN)
            discs[found++] = load_be32(static_cast<const std::uint8_t *>(payloads[i].iov_base) +
                                       offsetof(bfd_ctrl, your_discriminator));
    }
    softirq_guard table(rx_lock);
    vrf->sessions.fetch(discs, found, prefetch_for_packet);
}

void rx_data_ready(sock *sk)
{
    auto *vrf = static_cast<kelm_vrf *>(sock_user_data(sk));
    KELM_LOG("Rx", 3, "Received packet");
    note_first_packet();
    skb_ptr skb(__skb_recv_udp(sk));
    if (!skb) {
        KELM_LOG("Rx", 2, "Packet missing!");
        count(vrf->stats.rx_packet_missing);
        return;
    }
    // The packet is read as one piece, and written to.
    const int err = skb_linearize_cow(skb.get());
    if (err != 0) {
        KELM_LOG("Rx", 2, "failed to expand skb %d", err);
        count(vrf->stats.pskb_expand_fail);
        skb.drop();
        return;
    }
    const received_frame frame(skb.get());
    if (!kelm_packet_valid(frame.header(), frame.bfd_len)) {
        KELM_LOG("Rx", 2, "Packet failed RFC validation");
        count(vrf->stats.rfc_drops);
        return;
    }
    valid_packet(vrf, skb, frame);
}
