#include "modem_peer.h"

#include <strings.h>
#include <algorithm>
#include <array>

namespace bench {
namespace {

constexpr char kCtrlZ = '\x1a';
constexpr char kEscape = '\x1b';

constexpr std::array kModemVerbs{
    Verb{"answer", ArgumentKind::text},    // the text between two line ends, as one message
    Verb{"send", ArgumentKind::text},      // the bytes as they stand, as one message
    Verb{"wait", ArgumentKind::duration},  // before the next step
    Verb{"chunks", ArgumentKind::number},  // cut the rule's messages to this many bytes
    Verb{"silent", ArgumentKind::none},    // no answer, on purpose
    Verb{"prompt", ArgumentKind::none},    // ask for message text; goes on after Ctrl-Z
    Verb{"data", ArgumentKind::text},      // "echo" or "swallow" until +++ or ATH
    Verb{"hangup", ArgumentKind::none},    // close the channel; it comes back at once
};

// "+++" alone, or ATH with its line end: what ends a data connection.
bool ends_data(std::string_view message) {
    return message == "+++" ||
           (message.size() >= 4 && strncasecmp(message.data(), "ATH\r", 4) == 0);
}

}  // namespace

std::span<const Verb> modem_verbs() {
    return kModemVerbs;
}

ModemPeer::ModemPeer(Scenario scenario, std::vector<std::string> channel_names, Time now)
    : scenario_(std::move(scenario)) {
    for (std::string& name : channel_names) {
        Channel channel;
        channel.name = std::move(name);
        channel.ready_at = now;
        channels_.push_back(std::move(channel));
    }
    for (std::size_t index = 0; index < scenario_.rules.size(); ++index) {
        const Rule& rule = scenario_.rules[index];
        if (rule.trigger == Trigger::after || rule.trigger == Trigger::every) {
            timers_.push_back({index, now + rule.time, rule.trigger == Trigger::every});
        }
    }
}

void ModemPeer::received(int index, std::string_view message, Time now) {
    Channel& channel = channels_.at(static_cast<std::size_t>(index));
    switch (channel.listening) {
        case Listening::to_commands:
            begin_line(channel, without_line_end(message), now);
            break;
        case Listening::to_text:
            if (!message.empty() && (message.back() == kCtrlZ || message.back() == kEscape)) {
                end_text(channel, message.back() == kEscape, now);
            }
            break;
        case Listening::to_data:
            if (ends_data(message)) {
                channel.listening = Listening::to_commands;
                channel.ready_at = now;
            } else if (channel.echoes_data) {
                at_once_.push_back({index, false, std::string(message)});
            }
            break;
    }
}

void ModemPeer::closed(int index) {
    Channel& channel = channels_.at(static_cast<std::size_t>(index));
    channel.steps.clear();
    channel.waiting.clear();
    channel.listening = Listening::to_commands;
}

void ModemPeer::begin_line(Channel& channel, std::string_view line, Time now) {
    if (!channel.steps.empty()) {
        channel.waiting.emplace_back(line);
        return;
    }
    if (const Rule* rule = find_rule(scenario_, channel.name, line, used_)) {
        begin_steps(channel, *rule, now);
    }
}

void ModemPeer::begin_steps(Channel& channel, const Rule& rule, Time now) {
    if (channel.steps.empty()) {
        channel.ready_at = now;
    }
    channel.chunk = 0;
    channel.steps.insert(channel.steps.end(), rule.steps.begin(), rule.steps.end());
}

// 3GPP TS 27.005, 3.5.1: Ctrl-Z sends the message, ESC gives it up and is answered OK.
void ModemPeer::end_text(Channel& channel, bool cancelled, Time now) {
    channel.listening = Listening::to_commands;
    channel.ready_at = now;
    if (cancelled) {
        Step ok;
        ok.verb = "answer";
        ok.text = "OK";
        channel.steps.assign(1, ok);
    }
}

std::optional<Time> ModemPeer::next_due() const {
    std::optional<Time> due;
    const auto sooner = [&due](Time time) { due = due ? std::min(*due, time) : time; };
    for (const Channel& channel : channels_) {
        const bool has_work = !channel.steps.empty() || !channel.waiting.empty();
        if (has_work && channel.listening == Listening::to_commands) {
            sooner(channel.ready_at);
        }
    }
    for (const Timer& timer : timers_) {
        sooner(timer.due);
    }
    if (!at_once_.empty()) {
        sooner(Time::min());
    }
    return due;
}

std::vector<Delivery> ModemPeer::take_due(Time now) {
    std::vector<Delivery> out = std::move(at_once_);
    at_once_.clear();
    fire_timers(now);
    for (std::size_t index = 0; index < channels_.size(); ++index) {
        run(static_cast<int>(index), now, out);
    }
    return out;
}

void ModemPeer::fire_timers(Time now) {
    for (Timer& timer : timers_) {
        if (timer.due > now) {
            continue;
        }
        const Rule& rule = scenario_.rules[timer.rule];
        for (Channel& channel : channels_) {
            if (rule.only.empty() || rule.only == channel.name) {
                begin_steps(channel, rule, now);
            }
        }
        timer.due = timer.repeats ? now + rule.time : Time::max();
    }
    std::erase_if(timers_, [](const Timer& timer) { return timer.due == Time::max(); });
}

void ModemPeer::run(int index, Time now, std::vector<Delivery>& out) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    while (channel.listening == Listening::to_commands && channel.ready_at <= now) {
        if (!channel.steps.empty()) {
            const Step step = std::move(channel.steps.front());
            channel.steps.pop_front();
            if (step.verb == "wait") {
                channel.ready_at = std::max(channel.ready_at, now) + step.time;
            }
            carry_out(index, step, out);
        } else if (!channel.waiting.empty()) {
            const std::string line = std::move(channel.waiting.front());
            channel.waiting.pop_front();
            begin_line(channel, line, now);
        } else {
            return;
        }
    }
}

void ModemPeer::carry_out(int index, const Step& step, std::vector<Delivery>& out) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    const auto send = [&](std::string_view bytes) {
        const std::size_t size =
            channel.chunk == 0 ? bytes.size() : static_cast<std::size_t>(channel.chunk);
        for (; !bytes.empty(); bytes.remove_prefix(std::min(size, bytes.size()))) {
            out.push_back({index, false, std::string(bytes.substr(0, size))});
        }
    };
    if (step.verb == "answer") {
        send("\r\n" + step.text + "\r\n");
    } else if (step.verb == "send") {
        send(step.text);
    } else if (step.verb == "chunks") {
        channel.chunk = step.number;
    } else if (step.verb == "prompt") {
        send("\r\n> ");
        channel.listening = Listening::to_text;
    } else if (step.verb == "data") {
        channel.listening = Listening::to_data;
        channel.echoes_data = step.text == "echo";
    } else if (step.verb == "hangup") {
        out.push_back({index, true, {}});
    }
}

}  // namespace bench
