// SPDX-License-Identifier: GPL-2.0
//
// The C interface: a thin layer over the C++ one, which no exception leaves.
#include "libkelm/libkelm.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "libkelm/client.h"
#include "libkelm/error.h"
#include "libkelm/frame.h"
#include "libkelm/names.h"
#include "libkelm/packet.h"

struct kelm_client {
    explicit kelm_client(const char *netns) : client(netns) {}

    kelm::client client;
    kelm::raw_report event = {}; // what the caller looks at
};

struct kelm_dump {
    std::vector<kelm::raw_report> reports;
    std::size_t next = 0;
};

namespace
{

thread_local char last_error[1024] = "no error";

int fail(int number, const char *text) noexcept
{
    std::snprintf(last_error, sizeof last_error, "%s", text);
    return number > 0 ? -number : -EIO;
}

template<typename Work>
int guarded(Work work) noexcept
{
    try {
        return work();
    } catch (const kelm::error &problem) {
        return fail(problem.number(), problem.what());
    } catch (const std::bad_alloc &) {
        return fail(ENOMEM, "out of memory");
    } catch (const std::exception &problem) {
        return fail(EIO, problem.what());
    } catch (...) {
        return fail(EIO, "unknown error");
    }
}

int execute(kelm_client *client, const kelm::request &request)
{
    client->client.execute(request);
    return 0;
}

kelm::byte_view view(const void *data, std::size_t length)
{
    return {static_cast<const std::uint8_t *>(data), length};
}

kelm_report to_c(const kelm::raw_report &report)
{
    std::uint16_t type = report.type;
    if (type == NLMSG_OVERRUN)
        type = KELM_REPORT_LOST;
    else if (!report.is_well_formed)
        type = KELM_REPORT_MALFORMED;
    return {.type = type, .length = report.body.size(), .body = report.body.data()};
}

int make_dump(std::vector<kelm::raw_report> reports, kelm_dump **dump)
{
    *dump = new kelm_dump{.reports = std::move(reports)};
    return 0;
}

template<typename Body>
const Body &as(const void *body)
{
    return *static_cast<const Body *>(body);
}

// Without bytes of its own, the failure message is libkelm's.
kelm::request session_request(const kelm_msg_rx_set_session &settings, kelm::byte_view failure)
{
    const kelm::bytes usual = kelm::failure_message(settings.header.discriminator);
    return kelm::set_session(settings,
                             failure.data() == nullptr ? kelm::byte_view(usual) : failure);
}

kelm::request request_of(std::uint16_t type, const void *body, kelm::byte_view rest)
{
    switch (type) {
    case KELM_MSG_TX_SET_PACKET:
        return kelm::set_packet(as<kelm_msg_tx_set_packet>(body), rest);
    case KELM_MSG_TX_DELETE_PACKET:
        return kelm::delete_packet(as<kelm_msg_tx_delete_packet>(body).header.discriminator);
    case KELM_MSG_RX_SET_SESSION:
        return session_request(as<kelm_msg_rx_set_session>(body), rest);
    case KELM_MSG_RX_DELETE_SESSION:
        return kelm::delete_session(as<kelm_msg_rx_delete_session>(body).header.discriminator);
    case KELM_MSG_GET_STATS: {
        const auto &stats = as<kelm_msg_get_stats>(body);
        return kelm::get_stats(stats.header.discriminator, stats.flags);
    }
    case KELM_MSG_SYNC:
        return kelm::sync(as<kelm_msg_sync>(body).flags);
    case KELM_MSG_SET_DEBUG_LEVEL: {
        const auto &debug = as<kelm_msg_set_debug_level>(body);
        return kelm::set_debug_level(debug.header.discriminator, debug.debug_level, debug.flags);
    }
    case KELM_MSG_TX_PATH_READY:
        return kelm::tx_path_ready();
    case KELM_MSG_SET_SESSION_STATS_INTERVAL:
        return kelm::set_stats_interval(as<kelm_msg_set_session_stats_interval>(body).interval);
    default:
        throw kelm::error(EINVAL, "not a request: type " + std::to_string(type));
    }
}

void complete(kelm::raw_answer how, kelm_completion *done, void *context)
{
    const int result = how.error_number == 0 ? 0 : fail(how.error_number, how.text.c_str());
    kelm_dump replies{.reports = std::move(how.reports)};
    done(context, result, &replies);
}

kelm::ip_address parse_address(const char *what, const char *text)
{
    const auto address = kelm::ip_address::parse(text == nullptr ? "" : text);
    if (!address)
        throw kelm::error(EINVAL, std::string(what) + " '" + (text == nullptr ? "" : text) +
                                      "' is not an IPv4 or IPv6 address");
    return *address;
}

kelm::mac_address parse_mac(const char *what, const char *text)
{
    const auto address = kelm::mac_address::parse(text == nullptr ? "" : text);
    if (!address)
        throw kelm::error(EINVAL, std::string(what) + " '" + (text == nullptr ? "" : text) +
                                      "' is not an Ethernet address, as in 02:00:00:12:34:56");
    return *address;
}

kelm::auth_settings auth_settings(std::uint8_t type, std::uint8_t key_id, const void *key,
                                  std::size_t length)
{
    const kelm::byte_view bytes = view(key, length);
    return {.type = type, .key_id = key_id, .key = {bytes.begin(), bytes.end()}};
}

kelm::bfd_fields fields_of(const kelm_bfd &bfd)
{
    return {
        .diag = bfd.diag,
        .state = bfd.state,
        .poll = (bfd.flags & BFD_FLAG_POLL) != 0,
        .final = (bfd.flags & BFD_FLAG_FINAL) != 0,
        .control_plane_independent = (bfd.flags & BFD_FLAG_CONTROL_PLANE_INDEPENDENT) != 0,
        .demand_mode = (bfd.flags & BFD_FLAG_DEMAND_MODE) != 0,
        .detect_multiplier = bfd.detect_multiplier,
        .my_discriminator = bfd.my_discriminator,
        .your_discriminator = bfd.your_discriminator,
        .min_tx_interval = bfd.min_tx_interval,
        .min_rx_interval = bfd.min_rx_interval,
        .min_echo_rx_interval = bfd.min_echo_rx_interval,
    };
}

std::uint8_t flags_of(const kelm::bfd_packet &packet)
{
    const kelm::bfd_fields &fields = packet.fields;
    return static_cast<std::uint8_t>(
        (fields.poll ? BFD_FLAG_POLL : 0) | (fields.final ? BFD_FLAG_FINAL : 0) |
        (fields.control_plane_independent ? BFD_FLAG_CONTROL_PLANE_INDEPENDENT : 0) |
        (packet.auth_present ? BFD_FLAG_AUTH_PRESENT : 0) |
        (fields.demand_mode ? BFD_FLAG_DEMAND_MODE : 0) |
        (packet.multipoint ? BFD_FLAG_MULTIPOINT : 0));
}

kelm_bfd to_c(const kelm::bfd_packet &packet)
{
    return {
        .version = packet.version,
        .diag = packet.fields.diag,
        .state = packet.fields.state,
        .flags = flags_of(packet),
        .detect_multiplier = packet.fields.detect_multiplier,
        .my_discriminator = packet.fields.my_discriminator,
        .your_discriminator = packet.fields.your_discriminator,
        .min_tx_interval = packet.fields.min_tx_interval,
        .min_rx_interval = packet.fields.min_rx_interval,
        .min_echo_rx_interval = packet.fields.min_echo_rx_interval,
    };
}

void put_address(char (&into)[KELM_ADDRESS_ROOM], const kelm::ip_address &address)
{
    if (address.family != 0)
        std::snprintf(into, sizeof into, "%s", address.text().c_str());
}

kelm_frame to_c(const kelm::frame_info &info)
{
    kelm_frame frame = {};
    put_address(frame.source, info.source);
    put_address(frame.destination, info.destination);
    frame.ttl = info.ttl;
    frame.source_port = info.source_port;
    frame.destination_port = info.destination_port;
    frame.bfd = to_c(info.bfd);
    if (const auto &auth = info.bfd.auth) {
        frame.auth_type = auth->type;
        frame.auth_key_id = auth->key_id;
        frame.auth_has_sequence = auth->sequence ? 1 : 0;
        frame.auth_sequence = auth->sequence.value_or(0);
    }
    return frame;
}

const char *name_in(kelm::name_table table, std::uint32_t number)
{
    const auto found = std::ranges::find(table, number, &kelm::number_name::number);
    return found == table.end() ? "?" : found->name.data(); // a literal, with its end
}

} // namespace

const char *kelm_error_text()
{
    return last_error;
}

int kelm_client_open(const char *netns, kelm_client **client)
{
    return guarded([=] {
        *client = new kelm_client(netns == nullptr ? "" : netns);
        return 0;
    });
}

void kelm_client_close(kelm_client *client)
{
    delete client;
}

int kelm_client_fd(const kelm_client *client)
{
    return client->client.fd();
}

int kelm_client_is_kernel(const kelm_client *client)
{
    return client->client.socket().is_kernel() ? 1 : 0;
}

void kelm_client_set_answer_timeout(kelm_client *client, unsigned int milliseconds)
{
    client->client.set_answer_timeout(kelm::milliseconds(milliseconds));
}

int kelm_client_set_packet(kelm_client *client, const struct kelm_msg_tx_set_packet *settings,
                           const void *packet, std::size_t packet_len)
{
    return guarded(
        [=] { return execute(client, kelm::set_packet(*settings, view(packet, packet_len))); });
}

int kelm_client_delete_packet(kelm_client *client, std::uint32_t discriminator)
{
    return guarded([=] { return execute(client, kelm::delete_packet(discriminator)); });
}

int kelm_client_set_session(kelm_client *client, const struct kelm_msg_rx_set_session *settings,
                            const void *failure, std::size_t failure_len)
{
    return guarded(
        [=] { return execute(client, session_request(*settings, view(failure, failure_len))); });
}

int kelm_client_delete_session(kelm_client *client, std::uint32_t discriminator)
{
    return guarded([=] { return execute(client, kelm::delete_session(discriminator)); });
}

int kelm_client_tx_path_ready(kelm_client *client)
{
    return guarded([=] { return execute(client, kelm::tx_path_ready()); });
}

int kelm_client_sync_mark(kelm_client *client)
{
    return guarded([=] { return execute(client, kelm::sync(KELM_SYNC_MARK)); });
}

int kelm_client_sync_sweep(kelm_client *client)
{
    return guarded([=] { return execute(client, kelm::sync(KELM_SYNC_SWEEP)); });
}

int kelm_client_set_debug_level(kelm_client *client, std::uint32_t discriminator,
                                std::uint16_t level, std::uint32_t flags)
{
    return guarded(
        [=] { return execute(client, kelm::set_debug_level(discriminator, level, flags)); });
}

int kelm_client_set_stats_interval(kelm_client *client, std::uint16_t seconds)
{
    return guarded([=] { return execute(client, kelm::set_stats_interval(seconds)); });
}

int kelm_client_submit(kelm_client *client, std::uint16_t type, const void *body, const void *rest,
                       std::size_t rest_length, kelm_completion *done, void *context)
{
    return guarded([=] {
        client->client.submit_raw(
            request_of(type, body, view(rest, rest_length)),
            [done, context](kelm::raw_answer how) { complete(std::move(how), done, context); });
        return 0;
    });
}

int kelm_client_progress(kelm_client *client)
{
    return guarded([=] {
        client->client.progress();
        return 0;
    });
}

short kelm_client_poll_events(const kelm_client *client)
{
    return client->client.poll_events();
}

int kelm_client_timeout(const kelm_client *client)
{
    return kelm::poll_timeout(client->client.deadline(), client->client.socket().now());
}

std::size_t kelm_client_outstanding(const kelm_client *client)
{
    return client->client.outstanding();
}

int kelm_client_subscribe(kelm_client *client, std::uint32_t mask)
{
    return guarded([=] {
        client->client.subscribe(mask);
        return 0;
    });
}

int kelm_client_next_event(kelm_client *client, unsigned int timeout_milliseconds,
                           struct kelm_report *event)
{
    return guarded([=] {
        auto next = client->client.next_raw_event(kelm::milliseconds(timeout_milliseconds));
        if (!next)
            return 0;
        client->event = *std::move(next);
        *event = to_c(client->event);
        return 1;
    });
}

int kelm_client_sync_dump(kelm_client *client, kelm_dump **dump)
{
    return guarded([=] { return make_dump(client->client.execute_raw(kelm::sync(0)), dump); });
}

int kelm_client_statistics(kelm_client *client, std::uint32_t discriminator, std::uint32_t flags,
                           kelm_dump **dump)
{
    return guarded([=] {
        return make_dump(client->client.execute_raw(kelm::get_stats(discriminator, flags)), dump);
    });
}

int kelm_dump_next(kelm_dump *dump, struct kelm_report *report)
{
    if (dump->next == dump->reports.size())
        return 0;
    *report = to_c(dump->reports[dump->next++]);
    return 1;
}

void kelm_dump_free(kelm_dump *dump)
{
    delete dump;
}

void kelm_packet_init(struct kelm_packet *packet)
{
    const kelm::packet_settings defaults;
    *packet = {};
    packet->destination_port = defaults.destination_port;
    packet->ttl = defaults.ttl;
    packet->traffic_class = defaults.traffic_class;
    kelm::bfd_packet bfd;
    bfd.version = BFD_VERSION;
    bfd.fields = defaults.bfd;
    packet->bfd = to_c(bfd);
}

int kelm_build_packet(const struct kelm_packet *packet, struct kelm_msg_tx_set_packet *settings,
                      void *buffer, std::size_t room)
{
    return guarded([=] {
        kelm::packet_settings wanted;
        wanted.source = parse_address("source", packet->source);
        wanted.destination = parse_address("destination", packet->destination);
        wanted.source_port = packet->source_port;
        wanted.destination_port = packet->destination_port;
        wanted.ttl = packet->ttl;
        wanted.traffic_class = packet->traffic_class;
        if (packet->ethernet_destination != nullptr)
            wanted.ethernet = {.destination =
                                   parse_mac("destination", packet->ethernet_destination),
                               .source = parse_mac("source", packet->ethernet_source)};
        wanted.bfd = fields_of(packet->bfd);
        wanted.auth =
            auth_settings(packet->auth_type, packet->key_id, packet->key, packet->key_length);

        const kelm::built_packet built = kelm::build_packet(wanted);
        if (built.packet.size() > room)
            throw kelm::error(EMSGSIZE, "the packet has " + std::to_string(built.packet.size()) +
                                            " bytes, but there is room for only " +
                                            std::to_string(room));
        built.apply_to(*settings, packet->auth_type);
        std::ranges::copy(built.packet, static_cast<std::uint8_t *>(buffer));
        return static_cast<int>(built.packet.size());
    });
}

int kelm_build_key(std::uint8_t auth_type, std::uint8_t key_id, const void *key,
                   std::size_t key_length, struct kelm_bfd_auth_key *slot)
{
    return guarded([=] {
        *slot = kelm::key_slot(auth_settings(auth_type, key_id, key, key_length));
        return 0;
    });
}

int kelm_decode_frame(const struct kelm_report *report, struct kelm_frame *frame)
{
    return guarded([=] {
        if (report->type != KELM_MSG_RX_PACKET_CHANGE)
            throw kelm::error(EINVAL, "a report of type " + std::to_string(report->type) +
                                          " contains no frame");
        const auto packet = kelm::view_packet(view(report->body, report->length));
        const auto info = packet ? kelm::decode_frame(*packet) : std::nullopt;
        if (!info)
            throw kelm::error(EBADMSG, "the frame contains no BFD packet");
        *frame = to_c(*info);
        return 0;
    });
}

const char *kelm_state_name(std::uint8_t state)
{
    return name_in(kelm::state_names, state);
}

const char *kelm_diagnostic_name(std::uint8_t diagnostic)
{
    return name_in(kelm::diagnostic_names, diagnostic);
}
