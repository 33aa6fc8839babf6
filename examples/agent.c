/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A small BFD agent: one single-hop session (RFC 5881) over kelm.
 *
 *     agent LOCAL PEER DISCRIMINATOR [INTERVAL_MS]
 *
 * It runs in the network namespace that it is started in, and ends with SIGINT or SIGTERM, having
 * taken the session down in good order. Killed and started again, it carries on with the session
 * that kelm has kept alive meanwhile. docs/tutorial-agent.md builds it up step by step.
 */
#include <errno.h>
#include <libkelm/libkelm.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum {
    MULTIPLIER = 3,
    SLOW_INTERVAL = 1000000, /* us; RFC 5880 section 6.8.3 */
    MAX_HOLD = 10000000      /* us */
};

struct session {
    kelm_client *kelm;
    const char *local;
    const char *peer;
    uint32_t discriminator;  /* ours */
    kelm_microsecs interval; /* that we offer in both directions */
    uint8_t state;           /* bfd_states */
    uint8_t diag;            /* bfd_diagnostics: why we left Up last */
    int polling;             /* our Poll Sequence is under way */
    struct kelm_bfd remote;  /* the peer's last packet */
};

/* What we assume of a peer before its first packet. */
static const struct kelm_bfd unknown_peer = {.detect_multiplier = MULTIPLIER};

static kelm_microsecs longer(kelm_microsecs a, kelm_microsecs b)
{
    return a > b ? a : b;
}

static kelm_microsecs own_min_tx(const struct session *s)
{
    return s->state == BFD_STATE_UP ? s->interval : longer(s->interval, SLOW_INTERVAL);
}

static kelm_microsecs tx_interval(const struct session *s)
{
    return longer(own_min_tx(s), s->remote.min_rx_interval);
}

static uint8_t poll_flag(const struct session *s)
{
    return s->polling ? BFD_FLAG_POLL : 0;
}

/*
 * Gives kelm the packet to send from now on, and has it sent at once. The first request sets the
 * rhythm; one that sends out of band, as the second does, would keep the rhythm that was.
 */
static int speak(struct session *s, uint8_t flags)
{
    struct kelm_packet packet;
    kelm_packet_init(&packet);
    packet.source = s->local;
    packet.destination = s->peer;
    packet.source_port = (uint16_t)(49152 + s->discriminator % 16384);
    packet.bfd.state = s->state;
    packet.bfd.diag = s->diag;
    packet.bfd.flags |= flags;
    packet.bfd.detect_multiplier = MULTIPLIER;
    packet.bfd.my_discriminator = s->discriminator;
    packet.bfd.your_discriminator = s->remote.my_discriminator;
    packet.bfd.min_tx_interval = own_min_tx(s);
    packet.bfd.min_rx_interval = s->interval;

    struct kelm_msg_tx_set_packet settings = {0};
    settings.header.discriminator = s->discriminator;
    settings.period = tx_interval(s);
    settings.jitter_type = BFD_TX_JITTER_75;
    settings.latch_state = BFD_STATE_DOWN;
    settings.latch_period = SLOW_INTERVAL;

    uint8_t wire[KELM_PACKET_ROOM];
    int length = kelm_build_packet(&packet, &settings, wire, sizeof wire);
    if (length < 0)
        return length;
    int result = kelm_client_set_packet(s->kelm, &settings, wire, (size_t)length);
    if (result < 0)
        return result;
    settings.flags = KELM_TX_SEND_OOB;
    return kelm_client_set_packet(s->kelm, &settings, wire, (size_t)length);
}

/* Has kelm receive for us and, while the session is on its way up or Up, watch the peer. */
static int listen_to_peer(struct session *s)
{
    struct kelm_msg_rx_set_session settings = {0};
    settings.header.discriminator = s->discriminator;
    settings.type = KELM_RX_SESSION_BFD;
    settings.auth.flags = KELM_AUTH_TTL_255;
    settings.multiplier = s->remote.detect_multiplier;
    settings.period = longer(s->interval, s->remote.min_tx_interval);
    settings.latch_tx_packets[0] = s->discriminator;
    settings.latch_diagnostic = BFD_DIAG_CTRL_TIMEOUT;
    if (s->state == BFD_STATE_INIT || s->state == BFD_STATE_UP)
        settings.flags = KELM_RX_TIMER_ACTIVE;
    return kelm_client_set_session(s->kelm, &settings, NULL, 0);
}

/* The packet comes first: the session latches it. */
static int tell_kelm(struct session *s, uint8_t flags)
{
    int result = speak(s, flags);
    return result < 0 ? result : listen_to_peer(s);
}

/* RFC 5880 section 6.8.6 */
static uint8_t next_state(uint8_t state, uint8_t remote)
{
    if (remote == BFD_STATE_ADMIN_DOWN)
        return BFD_STATE_DOWN;
    switch (state) {
    case BFD_STATE_DOWN:
        return remote == BFD_STATE_DOWN   ? BFD_STATE_INIT
               : remote == BFD_STATE_INIT ? BFD_STATE_UP
                                          : BFD_STATE_DOWN;
    case BFD_STATE_INIT:
        return remote == BFD_STATE_DOWN ? BFD_STATE_INIT : BFD_STATE_UP;
    default:
        return remote == BFD_STATE_DOWN ? BFD_STATE_DOWN : state;
    }
}

static void enter(struct session *s, uint8_t state, uint8_t diag)
{
    if (state == s->state)
        return;
    if (state == BFD_STATE_DOWN)
        s->diag = diag;
    if (state == BFD_STATE_UP) {
        s->diag = BFD_DIAG_NONE;
        s->polling = 1; /* we are about to send faster: RFC 5880 section 6.8.3 */
    }
    s->state = state;
    printf("%s: %s, diagnostic %s\n", s->peer, kelm_state_name(state),
           kelm_diagnostic_name(s->diag));
    fflush(stdout);
}

/* Whether a packet is for this session: by discriminator, or by address until the peer has it. */
static int is_ours(const struct session *s, const struct kelm_frame *frame)
{
    if (frame->ttl != 255) /* kelm checks it only for its own sessions */
        return 0;
    if (frame->bfd.your_discriminator != 0)
        return frame->bfd.your_discriminator == s->discriminator;
    return strcmp(frame->source, s->peer) == 0;
}

/*
 * Forgets what the peer has said, and has kelm forget it: whatever the peer says next is news, even
 * if it is what it said before.
 */
static int forget_peer(struct session *s)
{
    s->remote = unknown_peer;
    s->polling = 0;
    int result = kelm_client_delete_session(s->kelm, s->discriminator);
    return result == -ENOENT ? 0 : result;
}

/* A packet from the peer with new contents. */
static int hear(struct session *s, const struct kelm_report *report)
{
    struct kelm_frame frame;
    if (kelm_decode_frame(report, &frame) < 0 || !is_ours(s, &frame))
        return 0;
    int result = frame.bfd.your_discriminator == 0 ? forget_peer(s) : 0;
    if (result < 0)
        return result;
    s->remote = frame.bfd;
    if (frame.bfd.flags & BFD_FLAG_FINAL)
        s->polling = 0;
    enter(s, next_state(s->state, frame.bfd.state), BFD_DIAG_NEIGH_DOWN);
    return tell_kelm(s, frame.bfd.flags & BFD_FLAG_POLL ? BFD_FLAG_FINAL : poll_flag(s));
}

/* The detection time has expired; kelm is already telling the peer. */
static int lose(struct session *s)
{
    if (s->state == BFD_STATE_DOWN)
        return 0;
    enter(s, BFD_STATE_DOWN, BFD_DIAG_CTRL_TIMEOUT);
    int result = forget_peer(s);
    return result < 0 ? result : tell_kelm(s, 0);
}

/* Gets the state of the session from kelm, at the start and after lost events. */
static int catch_up(struct session *s)
{
    kelm_dump *dump;
    int result = kelm_client_sync_dump(s->kelm, &dump);
    if (result < 0)
        return result;
    struct kelm_frame last = {0};
    struct kelm_report report;
    uint32_t timer_runs = 0;
    while (kelm_dump_next(dump, &report)) {
        const struct kelm_msg_header *header = report.body;
        if (report.type == KELM_REPORT_LOST || header->discriminator != s->discriminator)
            continue;
        if (report.type == KELM_MSG_RX_PACKET_CHANGE)
            kelm_decode_frame(&report, &last);
        if (report.type == KELM_MSG_RX_SYNC)
            timer_runs = ((const struct kelm_msg_rx_sync *)report.body)->timer_active;
    }
    kelm_dump_free(dump);

    if (timer_runs && last.bfd.state >= BFD_STATE_INIT) {
        s->remote = last.bfd;
        enter(s, BFD_STATE_UP, BFD_DIAG_NONE);
    } else {
        enter(s, BFD_STATE_DOWN, BFD_DIAG_CTRL_TIMEOUT);
        result = forget_peer(s);
    }
    return result < 0 ? result : tell_kelm(s, poll_flag(s));
}

static int handle(struct session *s, const struct kelm_report *event)
{
    const struct kelm_msg_header *header = event->body;
    switch (event->type) {
    case KELM_MSG_RX_PACKET_CHANGE:
        return hear(s, event);
    case KELM_MSG_SESSION_FAILURE:
        return header->discriminator == s->discriminator ? lose(s) : 0;
    case KELM_REPORT_LOST:
        return catch_up(s);
    default:
        return 0; /* of other agents in this namespace */
    }
}

static kelm_microsecs admin_down_hold(const struct session *s)
{
    const kelm_microsecs interval = tx_interval(s);
    return interval < MAX_HOLD / MULTIPLIER ? MULTIPLIER * interval : MAX_HOLD;
}

/*
 * Tells the peer that we leave, for as long as it takes to miss us (RFC 5880 section 6.8.16), so
 * that it does not take it for a failure of the path. Another signal ends the wait.
 */
static int leave(struct session *s)
{
    const kelm_microsecs time = admin_down_hold(s);
    s->state = BFD_STATE_ADMIN_DOWN;
    s->diag = BFD_DIAG_ADMIN_DOWN;
    int result = kelm_client_delete_session(s->kelm, s->discriminator);
    if (result == 0)
        result = speak(s, 0);
    if (result < 0)
        return result;
    nanosleep(&(struct timespec){time / 1000000, time % 1000000 * 1000}, NULL);
    return kelm_client_delete_packet(s->kelm, s->discriminator);
}

static volatile sig_atomic_t stop;

static void on_signal(int number)
{
    (void)number;
    stop = 1;
}

static int run(struct session *s)
{
    const uint32_t groups =
        1U << (KELM_NLG_NUM_CONTROL - 1) | 1U << (KELM_NLG_NUM_NOTIFICATION - 1);
    int result = kelm_client_subscribe(s->kelm, groups);
    if (result == 0)
        result = catch_up(s);
    if (result == 0)
        result = kelm_client_tx_path_ready(s->kelm);
    while (result >= 0 && !stop) {
        struct kelm_report event;
        result = kelm_client_next_event(s->kelm, 100, &event);
        if (result == 1)
            result = handle(s, &event);
        else if (result == 0 && s->polling)
            result = speak(s, BFD_FLAG_POLL); /* a Final may have taken its place */
    }
    return result < 0 ? result : leave(s);
}

int main(int argc, char *argv[])
{
    if (argc < 4 || argc > 5) {
        fprintf(stderr, "usage: agent LOCAL PEER DISCRIMINATOR [INTERVAL_MS]\n");
        return 2;
    }
    struct session session = {
        .local = argv[1],
        .peer = argv[2],
        .discriminator = (uint32_t)strtoul(argv[3], NULL, 0),
        .interval = 1000 * (argc > 4 ? (kelm_microsecs)strtoul(argv[4], NULL, 10) : 300),
        .state = BFD_STATE_DOWN,
        .remote = unknown_peer,
    };
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    int result = kelm_client_open(NULL, &session.kelm);
    if (result == 0) {
        result = run(&session);
        kelm_client_close(session.kelm);
    }
    if (result < 0)
        fprintf(stderr, "agent: %s\n", kelm_error_text());
    return result < 0 ? 1 : 0;
}
