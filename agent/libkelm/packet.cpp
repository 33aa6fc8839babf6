// SPDX-License-Identifier: GPL-2.0
#include "libkelm/packet.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <net/ethernet.h>
#include <netinet/in.h>

#include "libkelm/error.h"

namespace kelm
{

namespace
{

// Appends to a packet, in network byte order.
class writer
{
  public:
    explicit writer(bytes &out) : out_(out) {}

    writer &u8(std::uint32_t value)
    {
        out_.push_back(static_cast<std::uint8_t>(value));
        return *this;
    }
    writer &u16(std::uint32_t value) { return u8(value >> 8).u8(value); }
    writer &u32(std::uint32_t value) { return u16(value >> 16).u16(value); }
    writer &raw(byte_view value)
    {
        out_.insert(out_.end(), value.begin(), value.end());
        return *this;
    }

  private:
    bytes &out_;
};

// The Internet checksum's running sum (RFC 1071); only the last piece may have odd length.
std::uint32_t checksum_add(std::uint32_t sum, byte_view piece)
{
    for (std::size_t i = 0; i < piece.size(); i += 2)
        sum +=
            static_cast<std::uint32_t>(piece[i]) << 8 | (i + 1 < piece.size() ? piece[i + 1] : 0U);
    return sum;
}

std::uint16_t checksum_finish(std::uint32_t sum)
{
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

void put_u16(bytes &into, std::size_t offset, std::uint32_t value)
{
    into[offset] = static_cast<std::uint8_t>(value >> 8);
    into[offset + 1] = static_cast<std::uint8_t>(value);
}

std::size_t max_key_length(std::uint8_t auth_type)
{
    switch (auth_type) {
    case BFD_AUTH_PASSWORD:
        return BFD_PASSWORD_MAX_LEN;
    case BFD_AUTH_KEYED_MD5:
    case BFD_AUTH_METICULOUS_MD5:
        return BFD_MD5_DIGEST_LEN;
    case BFD_AUTH_KEYED_SHA1:
    case BFD_AUTH_METICULOUS_SHA1:
        return BFD_SHA1_DIGEST_LEN;
    case BFD_AUTH_NONE:
    case BFD_AUTH_DEBUG_SEQNUM:
        return 0;
    default:
        throw error(EINVAL, "unknown authentication type " + std::to_string(auth_type));
    }
}

void check_key(const auth_settings &auth)
{
    const std::size_t most = max_key_length(auth.type);
    if (auth.key.size() > most)
        throw error(EINVAL, "the key has " + std::to_string(auth.key.size()) +
                                " bytes, and this authentication type takes at most " +
                                std::to_string(most));
    if (most > 0 && auth.key.empty())
        throw error(EINVAL, "this authentication type requires a key");
    if (auth.type == BFD_AUTH_PASSWORD && std::ranges::find(auth.key, 0) != auth.key.end())
        throw error(EINVAL, "a password cannot contain a NUL byte");
}

// The authentication section with the key where a digest goes: what kelm wants in `auth_hdr`.
// Its length is in `len`; 0 without authentication.
bfd_auth_hdr auth_header(const auth_settings &auth)
{
    bfd_auth_hdr header;
    std::memset(&header, 0, sizeof header);
    if (auth.type == BFD_AUTH_NONE)
        return header;

    header.common.type = auth.type;
    switch (auth.type) {
    case BFD_AUTH_PASSWORD:
        header.common.len = static_cast<std::uint8_t>(BFD_AUTH_COMMON_LEN + auth.key.size());
        header.common.key_id = auth.key_id;
        std::ranges::copy(auth.key, header.password.password);
        break;
    case BFD_AUTH_DEBUG_SEQNUM:
        header.seq.len = BFD_AUTH_DEBUG_SEQNUM_LEN;
        break;
    default:
        header.common.len =
            max_key_length(auth.type) == BFD_MD5_DIGEST_LEN ? BFD_AUTH_MD5_LEN : BFD_AUTH_SHA1_LEN;
        header.common.key_id = auth.key_id;
        std::ranges::copy(auth.key, header.sha1.key_digest);
        break;
    }
    return header;
}

// The section as it lies in the packet: a digest's key must not be seen there.
bytes auth_section(const auth_settings &auth, const bfd_auth_hdr &header)
{
    const std::size_t len = header.common.len;
    const std::size_t shown = auth.type == BFD_AUTH_PASSWORD ? len : sizeof(bfd_auth_common);
    const auto *const start = reinterpret_cast<const std::uint8_t *>(&header);
    bytes section(start, start + std::min(shown, len));
    section.resize(len);
    return section;
}

std::uint32_t flag(bool set, std::uint32_t bit)
{
    return set ? bit : 0;
}

// The debug sequence number is not authentication: it trails a packet that does not mention it.
bytes bfd_control(const bfd_fields &bfd, const auth_settings &auth, const bfd_auth_hdr &header)
{
    const bool auth_present = auth.type != BFD_AUTH_NONE && auth.type != BFD_AUTH_DEBUG_SEQNUM;
    const std::uint32_t flags =
        flag(bfd.poll, BFD_FLAG_POLL) | flag(bfd.final, BFD_FLAG_FINAL) |
        flag(bfd.control_plane_independent, BFD_FLAG_CONTROL_PLANE_INDEPENDENT) |
        flag(auth_present, BFD_FLAG_AUTH_PRESENT) | flag(bfd.demand_mode, BFD_FLAG_DEMAND_MODE);
    const std::uint32_t state = static_cast<std::uint32_t>(bfd.state) << BFD_STATE_SHIFT;
    bytes control;
    writer(control)
        .u8(BFD_VERSION << BFD_VERSION_SHIFT | (bfd.diag & BFD_DIAG_MASK))
        .u8((state & BFD_STATE_MASK) | flags)
        .u8(bfd.detect_multiplier)
        .u8(BFD_CTRL_LEN + (auth_present ? header.common.len : 0U))
        .u32(bfd.my_discriminator)
        .u32(bfd.your_discriminator)
        .u32(bfd.min_tx_interval)
        .u32(bfd.min_rx_interval)
        .u32(bfd.min_echo_rx_interval)
        .raw(auth_section(auth, header));
    return control;
}

bytes udp_datagram(const packet_settings &settings, byte_view payload)
{
    bytes udp;
    const std::size_t length = 8 + payload.size();
    writer(udp)
        .u16(settings.source_port)
        .u16(settings.destination_port)
        .u16(static_cast<std::uint32_t>(length))
        .u16(0)
        .raw(payload);

    std::uint32_t sum = checksum_add(0, settings.source.view());
    sum = checksum_add(sum, settings.destination.view());
    sum += IPPROTO_UDP + static_cast<std::uint32_t>(length);
    const std::uint16_t checksum = checksum_finish(checksum_add(sum, udp));
    put_u16(udp, 6, checksum == 0 ? 0xffff : checksum); // 0 means none was computed
    return udp;
}

// Identification 0 with "don't fragment": such a datagram needs none (RFC 6864).
bytes ipv4_header(const packet_settings &settings, std::size_t payload_length)
{
    constexpr std::uint32_t dont_fragment = 0x4000;
    constexpr std::size_t header_length = 20;
    bytes header;
    writer(header)
        .u8(0x45)
        .u8(settings.traffic_class)
        .u16(static_cast<std::uint32_t>(header_length + payload_length))
        .u16(0)
        .u16(dont_fragment)
        .u8(settings.ttl)
        .u8(IPPROTO_UDP)
        .u16(0)
        .raw(settings.source.view())
        .raw(settings.destination.view());
    put_u16(header, 10, checksum_finish(checksum_add(0, header)));
    return header;
}

bytes ipv6_header(const packet_settings &settings, std::size_t payload_length)
{
    bytes header;
    writer(header)
        .u32(6U << 28 | static_cast<std::uint32_t>(settings.traffic_class) << 20)
        .u16(static_cast<std::uint32_t>(payload_length))
        .u8(IPPROTO_UDP)
        .u8(settings.ttl)
        .raw(settings.source.view())
        .raw(settings.destination.view());
    return header;
}

void check_addresses(const packet_settings &settings)
{
    if (settings.source.family != AF_INET && settings.source.family != AF_INET6)
        throw error(EINVAL, "a packet requires a source address");
    if (settings.source.family != settings.destination.family)
        throw error(EINVAL, "source and destination must both be IPv4 or both be IPv6 addresses");
}

} // namespace

built_packet build_packet(const packet_settings &settings)
{
    check_addresses(settings);
    check_key(settings.auth);
    const bool is_ipv4 = settings.source.family == AF_INET;
    const bfd_auth_hdr auth = auth_header(settings.auth);
    const bytes bfd = bfd_control(settings.bfd, settings.auth, auth);
    const bytes udp = udp_datagram(settings, bfd);
    const bytes ip =
        is_ipv4 ? ipv4_header(settings, udp.size()) : ipv6_header(settings, udp.size());

    bytes link;
    if (settings.ethernet)
        writer(link)
            .raw(settings.ethernet->destination.octets)
            .raw(settings.ethernet->source.octets)
            .u16(is_ipv4 ? ETHERTYPE_IP : ETHERTYPE_IPV6);

    built_packet built = {};
    built.type = settings.ethernet ? KELM_TX_SESSION_L2 : KELM_TX_SESSION_IP;
    built.auth_hdr = auth;
    writer(built.packet).raw(link).raw(ip).raw(udp);
    built.ip_hdr_offset = static_cast<std::uint32_t>(link.size());
    built.latch_offset = static_cast<std::uint32_t>(built.packet.size() - bfd.size());
    return built;
}

void built_packet::apply_to(kelm_msg_tx_set_packet &settings, std::uint8_t auth_type) const
{
    settings.type = static_cast<std::uint16_t>(type);
    settings.ip_hdr_offset = ip_hdr_offset;
    settings.latch_offset = latch_offset;
    settings.auth.type = auth_type;
    settings.auth_hdr = auth_hdr;
}

kelm_bfd_auth_key key_slot(const auth_settings &auth)
{
    check_key(auth);
    kelm_bfd_auth_key slot = {};
    std::ranges::copy(auth.key, slot.key);
    slot.key_id = auth.key_id;
    slot.key_valid = 1;
    return slot;
}

} // namespace kelm
