// SPDX-License-Identifier: Apache-2.0
#include <cstdarg>
#include <cstdio>

#include "ar_model/Model.h"

namespace ar_model {

void Side::say(char level, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    mWorld.log(level, mTag, text);
}

void Side::enter(std::vector<Entry>& table, const Entry& entry) {
    size_t at = 0;
    while (at < table.size() && table[at].object < entry.object) ++at;
    if (at < table.size() && table[at].object == entry.object) table.erase(table.begin() + at);
    table.insert(table.begin() + at, entry);
}

// Removes the first entry that is the very object, a NULL entry for an empty notice, and says how
// many are left; the entry's process, or none.
std::optional<uint64_t> Side::leave(std::vector<Entry>& clients, Callback who, const char* text) {
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients[i].object != who) continue;
        const uint64_t pid = clients[i].pid;
        clients.erase(clients.begin() + i);
        say('I', text, int(clients.size()));
        return pid;
    }
    return std::nullopt;
}

std::vector<Event> Side::withoutExtra(std::vector<Event> events) {
    for (Event& event : events) event.extra = 0;
    return events;
}

// A registration that leaves the process's first callback in place; all share one recipient.
void Side::registerFirst(Caller caller, Callback callback, std::vector<Entry>& clients,
                         uint64_t pidWithoutCaller, const RegistrationTexts& texts) {
    if (callback == 0) return say('E', "invalid Callback");
    if (sharedRecipient == 0) sharedRecipient = mWorld.newRecipient();
    if (sharedRecipient == 0) return say('E', "%s", texts.noMemory);
    if (!caller) say('E', "%s", texts.noCaller);
    const uint64_t pid = caller ? int64_t(*caller) : pidWithoutCaller;
    for (const Entry& client : clients) {
        if (client.object == callback || client.pid == pid) return say('I', texts.known, pid);
    }
    const LinkAnswer answer = mWorld.link(callback, sharedRecipient, pid);
    if (answer.link == Link::kFailed) return say('E', texts.failed, answer.why.c_str());
    if (answer.link == Link::kRefused) return say('W', "%s", texts.refused);
    enter(clients, {callback, pid});
    say('D', texts.linked, pid, int(clients.size()));
}

// Every client gets the whole list, also an empty one.
void Side::broadcast(const std::vector<Entry>& clients, const char* method,
                     const std::vector<Event>& events, const char* nullText, const char* failedText,
                     const char* operation) {
    for (size_t i = 0; i < clients.size(); ++i) {
        const Entry client = clients[i];
        if (client.object == 0) {
            say('E', nullText, client.pid);
        } else if (!mWorld.deliver(client.object, method, events)) {
            say('E', failedText, operation, client.pid);
        }
    }
}

}  // namespace ar_model
