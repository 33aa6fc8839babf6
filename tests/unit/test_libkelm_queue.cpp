// SPDX-License-Identifier: GPL-2.0
//
// Many requests at once, on a clock of the test's own.
#include <array>
#include <cerrno>
#include <random>
#include <set>

#include "libkelm/client.h"
#include "libkelm_fake.h"

namespace
{

using namespace libkelm_fake;
using kelm::milliseconds;

std::uint32_t discriminator_of(const seen &request)
{
    return kelm::read_as<std::uint32_t>(request.body).value();
}

// A client and what becomes of its requests, which are known by their turn.
class pipeline : public testing::Test
{
  protected:
    explicit pipeline() : pipeline(std::make_unique<fake_channel>()) {}

    void submit(const kelm::request &request)
    {
        const std::size_t id = ended.size();
        ended.emplace_back();
        client->submit(request, [this, id](kelm::answer how) {
            ended[id].push_back(std::move(how));
            order.push_back(id);
        });
    }

    void submit_deletions(std::uint32_t count)
    {
        for (std::uint32_t i = 0; i < count; ++i)
            submit(kelm::delete_session(i + 1));
    }

    // Error numbers of the requests in turn; -1 for one that has not ended just once.
    std::vector<int> errors() const
    {
        std::vector<int> all;
        for (const auto &endings : ended)
            all.push_back(endings.size() == 1 ? endings[0].error_number : -1);
        return all;
    }

    // As an event loop does.
    void run_until_idle()
    {
        while (client->outstanding() > 0) {
            fake->wait(client->poll_events(), *client->deadline());
            client->progress();
        }
    }

    std::vector<std::vector<kelm::answer>> ended; // by request
    std::vector<std::size_t> order;
    fake_channel *fake;
    std::unique_ptr<kelm::client> client;

  private:
    explicit pipeline(std::unique_ptr<fake_channel> channel)
        : fake(channel.get()), client(std::make_unique<kelm::client>(std::move(channel)))
    {
    }
};

answers refuse_every_third(const seen &request)
{
    return {ack(request.header, discriminator_of(request) % 3 == 0 ? -ENOENT : 0)};
}

TEST_F(pipeline, a_window_of_requests_is_under_way)
{
    fake->latency = milliseconds(5);
    fake->handle = refuse_every_third;
    submit_deletions(200);
    EXPECT_TRUE(fake->requests.empty()); // submit() sends nothing
    EXPECT_EQ(client->poll_events(), POLLIN | POLLOUT);
    fake->room = 0;
    client->progress();
    EXPECT_EQ(client->poll_events(), POLLIN | POLLOUT);
    fake->room = SIZE_MAX;
    client->progress();
    EXPECT_EQ(fake->requests.size(), kelm::request_queue::window);
    EXPECT_EQ(fake->datagrams, 1U);
    EXPECT_EQ(client->poll_events(), POLLIN);
    client->progress();
    EXPECT_EQ(fake->requests.size(), kelm::request_queue::window);
    run_until_idle();
    EXPECT_EQ(fake->requests.size(), 200U);
    for (std::size_t i = 0; i < 200; ++i) {
        EXPECT_EQ(errors()[i], (i + 1) % 3 == 0 ? ENOENT : 0) << i;
        EXPECT_EQ(ended[i].at(0).is_refused, (i + 1) % 3 == 0) << i;
        EXPECT_EQ(order[i], i);
    }
    EXPECT_NE(ended[2][0].text.find("session 3"), std::string::npos);
}

// A window of bytes, too: a refusal repeats its request.
TEST_F(pipeline, long_requests_go_one_by_one)
{
    fake->latency = milliseconds(5);
    for (int i = 0; i < 3; ++i)
        submit(kelm::set_packet({}, kelm::bytes(40'000)));
    submit(kelm::delete_packet(1));
    client->progress();
    EXPECT_EQ(fake->requests.size(), 1U);
    run_until_idle();
    EXPECT_EQ(errors(), std::vector<int>(4, 0));
}

answers one_record_and_done(const seen &request)
{
    if ((request.header.nlmsg_flags & NLM_F_ACK) != 0)
        return agree(request);
    return {reply(request.header, KELM_MSG_TX_SYNC, bytes_of(discriminator_of(request))),
            done(request.header)};
}

TEST_F(pipeline, dump_waits_for_the_one_before_it_and_others_pass)
{
    fake->latency = milliseconds(5);
    fake->handle = one_record_and_done;
    submit(kelm::get_stats(7, KELM_STATS_MODULE));
    submit(kelm::get_stats(8, KELM_STATS_MODULE));
    submit_deletions(1);
    client->progress();
    ASSERT_EQ(fake->requests.size(), 1U + 1U);
    EXPECT_EQ(fake->requests[1].header.nlmsg_type, KELM_MSG_RX_DELETE_SESSION);
    run_until_idle();
    EXPECT_EQ(order, (std::vector<std::size_t>{0, 2, 1}));
    for (const std::size_t id : {0U, 1U}) {
        const auto &reports = ended[id].at(0).reports;
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_EQ(std::get<kelm_msg_tx_sync>(reports[0]).header.discriminator, 7 + id);
    }
}

// Kelm is silent when it says nothing at all; and not when it was the agent that did not listen.
TEST_F(pipeline, silence_ends_everything_and_slowness_nothing)
{
    client->set_answer_timeout(milliseconds(100));
    fake->latency = milliseconds(90);
    submit_deletions(3 * kelm::request_queue::window);
    run_until_idle(); // takes 270 ms
    EXPECT_EQ(errors(), std::vector<int>(ended.size(), 0));

    submit_deletions(10);
    client->progress();
    fake->advance(milliseconds(1000));
    for (int i = 0; i < 100; ++i)
        fake->tell(message(KELM_MSG_SESSION_FAILURE, 0, 0, bytes_of(i)));
    run_until_idle();
    EXPECT_EQ(errors(), std::vector<int>(ended.size(), 0));

    ended.clear();
    fake->handle = [](const seen &) { return answers{}; };
    submit_deletions(2 * kelm::request_queue::window);
    submit(kelm::sync(0));
    submit(kelm::sync(0));
    const kelm::time_point start = fake->now();
    run_until_idle();
    EXPECT_EQ(errors(), std::vector<int>(ended.size(), ETIMEDOUT));
    EXPECT_LE(fake->now() - start, milliseconds(300));
}

TEST_F(pipeline, late_answers_are_no_events)
{
    client->set_answer_timeout(milliseconds(1));
    fake->handle = [](const seen &) { return answers{}; };
    submit(kelm::sync(0));
    run_until_idle();
    const nlmsghdr late = fake->requests.at(0).header;
    for (const std::uint16_t type :
         std::to_array<std::uint16_t>({18, 19, 22, 23, 24, 30, NLMSG_DONE, NLMSG_ERROR}))
        fake->tell(reply(late, type, kelm::bytes(200)));
    EXPECT_FALSE(client->next_event(milliseconds(0)));
    // But another agent's failure message may look like anything.
    fake->tell(reply(late, KELM_MSG_SESSION_FAILURE, bytes_of(5)));
    EXPECT_TRUE(client->next_event(milliseconds(0)));
}

TEST_F(pipeline, everything_ends_with_the_connection)
{
    fake->handle = [](const seen &) { return answers{}; };
    submit_deletions(2 * kelm::request_queue::window);
    submit(kelm::sync(0));
    submit(kelm::sync(0));
    client->progress();
    fake->failure.emplace(ECONNRESET, "gone");
    EXPECT_THROW(client->progress(), kelm::error);
    EXPECT_EQ(errors(), std::vector<int>(ended.size(), ECONNRESET));
    EXPECT_EQ(client->outstanding(), 0U);

    ended.clear();
    fake->failure.reset();
    client->submit(kelm::delete_session(1), [](const kelm::answer &how) {
        EXPECT_EQ(how.error_number, ECANCELED);
        throw std::runtime_error("lost");
    });
    kelm::client &closing = *client;
    client->submit(kelm::delete_session(1), [&closing](const kelm::answer &) {
        closing.submit(kelm::delete_session(1), [](const kelm::answer &) { FAIL(); });
    });
    submit_deletions(1);
    client.reset();
    EXPECT_EQ(errors(), std::vector<int>{ECANCELED});
}

TEST_F(pipeline, completion_that_throws_delays_the_others_only)
{
    client->submit(kelm::delete_session(1),
                   [](const kelm::answer &) { throw std::runtime_error("mine"); });
    submit_deletions(1);
    client->progress();
    EXPECT_THROW(client->progress(), std::runtime_error);
    EXPECT_LE(client->deadline(), fake->now()); // at once
    client->progress();
    EXPECT_EQ(errors(), std::vector<int>{0});
}

TEST_F(pipeline, memory_is_bounded)
{
    const kelm::request big = kelm::set_packet({}, kelm::bytes(1 << 20));
    EXPECT_THROW(
        {
            for (int i = 0; i < 1000; ++i)
                submit(big);
        },
        kelm::error);
    EXPECT_EQ(client->outstanding(), 31U);
}

// Any mixture of requests, on either host, with answers that get lost: each request ends once, as
// kelm has answered it; only one whose answer was lost may end otherwise, and kelm never has more
// to do at a time than it takes.
TEST_F(pipeline, random_conversations)
{
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto chance = [&](unsigned percent) { return random() % 100 < percent; };
        auto channel = std::make_unique<fake_channel>();
        fake = channel.get();
        client = std::make_unique<kelm::client>(std::move(channel));
        ended.clear();
        fake->kernel = chance(50);
        fake->latency = milliseconds(fake->kernel ? 0 : random() % 20);
        const unsigned losses = chance(50) ? 10 : 0;
        std::set<std::uint32_t> lost;
        fake->handle = [&](const seen &request) {
            if (chance(losses)) {
                lost.insert(discriminator_of(request));
                fake->lose();
                return answers{};
            }
            const bool is_dump = (request.header.nlmsg_flags & NLM_F_ACK) == 0;
            return is_dump ? one_record_and_done(request) : refuse_every_third(request);
        };

        std::uint32_t submitted = 0;
        while (submitted < 300 || client->outstanding() > 0) {
            for (auto i = random() % 100; i > 0 && submitted < 300; --i) {
                ++submitted;
                submit(chance(10) ? kelm::get_stats(submitted, KELM_STATS_MODULE)
                                  : kelm::delete_session(submitted));
            }
            fake->room = random() % 3;
            const std::size_t before = fake->requests.size();
            client->progress();
            EXPECT_LE(fake->requests.size() - before, kelm::request_queue::window + 1);
            fake->room = 1;
            if (client->outstanding() > 0)
                fake->wait(client->poll_events(), *client->deadline());
        }
        for (std::uint32_t i = 1; i <= submitted; ++i) {
            ASSERT_EQ(ended[i - 1].size(), 1U) << i;
            const kelm::answer &how = ended[i - 1][0];
            if (lost.contains(i) && (how.error_number == ENOBUFS || how.error_number == ETIMEDOUT))
                continue;
            if (how.reports.empty()) {
                EXPECT_EQ(how.error_number, i % 3 == 0 ? ENOENT : 0) << i;
            } else {
                EXPECT_EQ(std::get<kelm_msg_tx_sync>(how.reports[0]).header.discriminator, i);
            }
        }
    }
}

} // namespace
