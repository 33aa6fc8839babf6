// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/run.h"

#include <ostream>

#include "kelmctl/arguments.h"
#include "kelmctl/complete.h"
#include "kelmctl/context.h"
#include "kelmctl/help.h"

namespace kelmctl
{

namespace
{

// "help" may begin or end the words, and is taken from them.
bool take_help(std::span<char *const> &words)
{
    const auto is_help = [](std::string_view word) { return word == "help"; };
    if (!words.empty() && is_help(words.back())) {
        words = words.first(words.size() - 1);
        return true;
    }
    const bool first = !words.empty() && is_help(words.front());
    if (first)
        words = words.subspan(1);
    return first;
}

std::string help_about(std::span<char *const> words)
{
    if (words.empty())
        return overview_help();
    const object &object = find_object(words.front());
    words = words.subspan(1);
    if (words.empty() && object.commands.size() > 1)
        return object_help(object);
    return command_help(object, take_command(object, words));
}

void run_object(const options &opts, const object &object, std::span<char *const> words,
                std::ostream &out)
{
    const bool is_alone = words.empty();
    const command &command = take_command(object, words);
    if (is_alone && !object.acts_alone)
        throw usage_error(std::string(object.name) +
                          " requires a command: " + std::string(command.name));
    const arguments args(command, words);
    context ctx(opts, out);
    command.run(ctx, args);
    ctx.out.finish();
}

exit_status run_or_throw(std::span<char *const> argv, std::ostream &out, std::ostream &err)
{
    if (argv.size() > 1 && argv[1] == complete_command) {
        for (const auto &candidate : complete(argv.subspan(2)))
            out << candidate << '\n';
        return success;
    }
    std::span<char *const> words;
    const options opts = parse_options(argv, words);
    if (opts.version) {
        out << "kelmctl " KELM_VERSION "\n";
        return success;
    }
    if (take_help(words) || opts.help) {
        out << help_about(words);
        return success;
    }
    if (words.empty()) {
        err << overview_help();
        return usage;
    }
    run_object(opts, find_object(words.front()), words.subspan(1), out);
    return success;
}

} // namespace

exit_status run(std::span<char *const> argv, std::ostream &out, std::ostream &err)
{
    try {
        return run_or_throw(argv, out, err);
    } catch (const usage_error &problem) {
        err << "kelmctl: " << problem.what()
            << "\nTry 'kelmctl help', 'kelmctl OBJECT help' or 'kelmctl OBJECT COMMAND help'.\n";
        return usage;
    } catch (const std::exception &problem) {
        err << "kelmctl: " << problem.what() << '\n';
        return failure;
    }
}

} // namespace kelmctl
