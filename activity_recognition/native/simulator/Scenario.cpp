// SPDX-License-Identifier: Apache-2.0
#include "Scenario.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace ar_simulator {
namespace {

constexpr size_t kMaxListSize = 64;
constexpr size_t kMaxNameLength = ACTIVITY_RECOGNITION_NAME_SIZE - 1;
constexpr double kMaxSeconds = 1e6;
constexpr uint64_t kMaxTimes = 10000;
constexpr uint64_t kMaxBatch = 10000;
constexpr uint64_t kMaxThreads = 16;
constexpr uint64_t kMaxErrno = 4095;
constexpr uint64_t kMaxSnapshot = 1000;

// That can fail on purpose, or call back. Those whose answer is a count come first.
constexpr int kCountingSlots = 2;
const char* const kSlots[] = {
        "get_current_activity",   "get_current_environment",
        "enable_activity_event",  "enable_activity_event_extend",
        "disable_activity_event", "flush",
        "init_environment",       "exit_environment",
        "enable_environment",     "disable_environment",
};

// Decimal, or hexadecimal with 0x. Signs, blanks and octal are not numbers here.
bool parseNumber(const std::string& text, uint64_t max, uint64_t* number) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    const bool hex = text.size() > 1 && (text[1] == 'x' || text[1] == 'X');
    char* end = nullptr;
    errno = 0;
    *number = strtoull(text.c_str(), &end, hex ? 16 : 10);
    return errno == 0 && *end == '\0' && *number <= max;
}

bool parseDouble(const char* text, double* number) {
    if (*text != '.' && (*text < '0' || *text > '9')) return false;
    char* end = nullptr;
    *number = strtod(text, &end);
    return *end == '\0' && isfinite(*number);
}

bool parseSeconds(const std::string& text, int64_t* ns) {
    double seconds = 0;
    if (!parseDouble(text.c_str(), &seconds) || seconds > kMaxSeconds) return false;
    *ns = llround(seconds * kNsPerSecond);
    return true;
}

bool isName(const std::string& word) {
    double number = 0;
    return !word.empty() && word.size() <= kMaxNameLength && !parseDouble(word.c_str(), &number);
}

std::vector<std::string> split(const std::string& text, const char* separators) {
    std::vector<std::string> words;
    size_t end = 0;
    for (size_t start = 0;
         (start = text.find_first_not_of(separators, end)) != std::string::npos;) {
        end = std::min(text.find_first_of(separators, start), text.size());
        words.push_back(text.substr(start, end - start));
    }
    return words;
}

// The start of a reason: what a directive was given, if anything.
std::string given(const std::vector<std::string>& words) {
    return words.size() < 2 ? "" : "'" + words[1] + "': ";
}

// Its position in kSlots.
bool parseSlot(const std::string& text, int* position) {
    const auto found = std::find(std::begin(kSlots), std::end(kSlots), text);
    *position = static_cast<int>(found - kSlots);
    return found != std::end(kSlots);
}

void setName(ar_context_event* event, const std::string& name) {
    memcpy(event->name, name.c_str(), name.size() + 1);
}

class Reader {
  public:
    explicit Reader(Scenario* scenario) : mScenario(*scenario) {}

    // Returns the reason why the line is bad, empty when it is good.
    std::string read(const std::string& line);
    // Of a record or an answer without its offset.
    std::string readNow(const std::string& line);
    std::string finish();

  private:
    using Words = std::vector<std::string>;

    static Words wordsOf(const std::string& line);
    std::string readList(const Words& words, std::vector<std::string>* list);
    std::string readSpeed(const Words& words);
    std::string readLoop(const Words& words);
    std::string readLacks(const Words& words);
    std::string readWait(const Words& words);
    std::string readRecord(const Words& words);
    std::string readReport(const Words& words, Step* step);
    std::string readWhat(const std::string& word, Step* step);
    std::string readOption(const std::string& word, Step* step);
    std::string readFault(const std::string& key, const std::string& text, Kind kind);
    std::string readAnswer(const Words& words, Step* step);
    std::string checkRepetitions(const Step& step);
    void sortSection();

    Scenario& mScenario;
    std::vector<std::string> mSeen;  // directives
    size_t mSectionStart = 0;        // first step after the last wait
    int64_t mLastOffsetNs = 0;       // of the last line
    int64_t mWaitOffsetNs = 0;       // of the last wait
    uint64_t mTimes = 1;
    int64_t mEveryNs = 0;
    std::unique_ptr<Fault> mFault;  // of the line
};

Reader::Words Reader::wordsOf(const std::string& line) {
    return split(line.substr(0, line.find('#')), " \t\r\n");
}

std::string Reader::readNow(const std::string& line) {
    if (line.find('\0') != std::string::npos) return "holds a NUL byte";
    Words words = wordsOf(line);
    if (words.empty()) return "";
    words.insert(words.begin(), "0");
    return readRecord(words);
}

std::string Reader::read(const std::string& line) {
    if (line.find('\0') != std::string::npos) return "holds a NUL byte";
    const Words words = wordsOf(line);
    if (words.empty()) return "";

    const std::string& first = words[0];
    if (first == "wait") return readWait(words);
    const bool isDirective = first == "activities" || first == "environments" || first == "speed" ||
                             first == "loop" || first == "lacks";
    if (!isDirective) return readRecord(words);

    if (!mScenario.steps.empty()) return "'" + first + "' must come before the records";
    if (std::find(mSeen.begin(), mSeen.end(), first) != mSeen.end()) {
        return "'" + first + "' was given before";
    }
    mSeen.push_back(first);
    if (first == "activities") return readList(words, &mScenario.activities);
    if (first == "environments") return readList(words, &mScenario.environments);
    if (first == "lacks") return readLacks(words);
    return first == "speed" ? readSpeed(words) : readLoop(words);
}

std::string Reader::readList(const Words& words, std::vector<std::string>* list) {
    std::string reason;
    if (words.size() < 2 || words.size() > kMaxListSize + 1) {
        reason = "'" + words[0] + "' takes 1 to 64 names";
    }
    if (words.size() < 2) return reason;
    // A bad name is kept, too: the lines that use it are not wrong for that.
    list->clear();
    for (size_t i = 1; i < words.size(); ++i) {
        const bool again = std::find(list->begin(), list->end(), words[i]) != list->end();
        if (reason.empty() && again) reason = "'" + words[i] + "' is named twice";
        if (reason.empty() && !isName(words[i])) {
            reason = "'" + words[i] + "' is not a name of 1 to 31 bytes";
        }
        list->push_back(words[i].substr(0, kMaxNameLength));
    }
    return reason;
}

std::string Reader::readSpeed(const Words& words) {
    if (words.size() != 2 || !parseSpeed(words[1].c_str(), &mScenario.speed)) {
        return given(words) + "'speed' takes a factor of 0.001 to 10000, or step";
    }
    return "";
}

std::string Reader::readLoop(const Words& words) {
    mScenario.loops = true;
    if (words.size() == 1) return "";
    if (words.size() > 2 || !parseSeconds(words[1], &mScenario.periodNs) ||
        mScenario.periodNs <= 0) {
        return given(words) + "'loop' takes seconds, more than 0 up to 1000000";
    }
    return "";
}

std::string Reader::readLacks(const Words& words) {
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i] == "activity") {
            mScenario.lacksActivity = true;
        } else if (words[i] == "environment") {
            mScenario.lacksEnvironment = true;
        } else {
            return "'" + words[i] + "' is not a side: activity or environment";
        }
    }
    return words.size() > 1 ? "" : "'lacks' takes activity, environment or both";
}

std::string Reader::readWait(const Words& words) {
    if (words.size() != 2 || !isName(words[1])) return "'wait' takes a name of 1 to 31 bytes";
    sortSection();
    Step step = {};
    step.offsetNs = mWaitOffsetNs = mLastOffsetNs =
            mScenario.steps.empty() ? 0 : mScenario.steps.back().offsetNs;
    step.kind = Kind::kWait;
    setName(&step.event, words[1]);
    mScenario.steps.push_back(step);
    mSectionStart = mScenario.steps.size();
    return "";
}

std::string Reader::readRecord(const Words& words) {
    Step step = {};
    if (!parseSeconds(words[0], &step.offsetNs)) {
        return "'" + words[0] + "' is neither a directive nor an offset of 0 to 1000000 seconds";
    }
    if (step.offsetNs < mLastOffsetNs) {
        return "offset " + words[0] + " is earlier than " +
               (mLastOffsetNs == mWaitOffsetNs && mSectionStart == mScenario.steps.size()
                        ? "what comes before the wait"
                        : "the line above");
    }
    mTimes = 1;
    mEveryNs = 0;
    mFault.reset();
    const bool answers = words.size() > 1 && words[1] == "answer";
    std::string reason = answers ? readAnswer(words, &step) : readReport(words, &step);
    if (!reason.empty()) return reason;
    step.fault = std::move(mFault);
    if (mScenario.steps.size() + mTimes > kMaxSteps) return "more than 1000000 records";
    reason = checkRepetitions(step);
    if (!reason.empty()) return reason;
    mLastOffsetNs = step.offsetNs;
    for (uint64_t i = 0; i < mTimes; ++i) {
        mScenario.steps.push_back(step);
        step.offsetNs += mEveryNs;
    }
    return "";
}

std::string Reader::readReport(const Words& words, Step* step) {
    if (words.size() < 4) return "a record has offset, kind, what, event type";
    if (words[1] == "activity") {
        step->kind = Kind::kPlain;
    } else if (words[1] == "extended") {
        step->kind = Kind::kExtended;
    } else if (words[1] == "environment") {
        step->kind = Kind::kEnvironment;
    } else {
        return "'" + words[1] + "' is not a kind: activity, extended, environment or answer";
    }
    std::string reason = readWhat(words[2], step);
    if (!reason.empty()) return reason;

    uint64_t type = 0;
    const bool isActivity = step->kind != Kind::kEnvironment;
    if (!parseNumber(words[3], isActivity ? 2 : UINT32_MAX, &type) || type < 1) {
        return "'" + words[3] + "' is not an event type" + (isActivity ? " (1 or 2)" : "");
    }
    step->event.event_type = static_cast<uint32_t>(type);
    for (size_t i = 4; i < words.size() && reason.empty(); ++i) {
        reason = readOption(words[i], step);
    }
    // Whoever hands over hands over one at least.
    if (mFault != nullptr && mFault->batch == kHeld &&
        (mFault->threads > 1 || !mFault->slot.empty())) {
        mFault->batch = 1;
    }
    return reason;
}

std::string Reader::readAnswer(const Words& words, Step* step) {
    if (words.size() < 4) return "an answer has offset, 'answer', slot, result";
    step->kind = Kind::kAnswer;
    mFault.reset(new Fault);
    int position = 0;
    if (!parseSlot(words[2], &position)) return "'" + words[2] + "' is not a slot that can fail";
    mFault->slot = words[2];
    const bool negative = words[3][0] == '-';
    const bool counts = position < kCountingSlots;
    uint64_t number = 0;
    if (!parseNumber(words[3].substr(negative ? 1 : 0), negative ? kMaxErrno : kMaxSnapshot,
                     &number) ||
        (negative ? number < 1 : !counts || number <= ACTIVITY_RECOGNITION_MAX_CURRENT)) {
        return "'" + words[3] + "' is not an answer of " + words[2] + ": -4095 to -1" +
               (counts ? ", 6 to 1000" : "");
    }
    mFault->answer = static_cast<int>(number) * (negative ? -1 : 1);
    uint64_t calls = 1;
    for (size_t i = 4; i < words.size(); ++i) {
        if (words[i].compare(0, 6, "times=") != 0) {
            return "'" + words[i] + "' is not an option of an answer: times";
        }
        if (!parseNumber(words[i].substr(6), kMaxTimes, &calls) || calls < 1) {
            return "times takes 1 to 10000";
        }
    }
    mFault->calls = static_cast<int>(calls);
    return "";
}

std::string Reader::readWhat(const std::string& word, Step* step) {
    const bool isActivity = step->kind != Kind::kEnvironment;
    const auto& list = isActivity ? mScenario.activities : mScenario.environments;
    const auto found = std::find(list.begin(), list.end(), word);
    uint64_t number = static_cast<uint64_t>(found - list.begin());
    if (found == list.end() && !parseNumber(word, list.size() - 1, &number)) {
        return std::string("no ") + (isActivity ? "activity" : "environment") + " is named '" +
               word + "'";
    }
    step->event.activity = static_cast<uint32_t>(number);
    setName(&step->event, list[number]);
    return "";
}

std::string Reader::readOption(const std::string& word, Step* step) {
    const size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    const std::string text = equals == std::string::npos ? "" : word.substr(equals + 1);
    uint64_t number = 0;

    if (key == "times") {
        if (!parseNumber(text, kMaxTimes, &mTimes) || mTimes < 1) return "times takes 1 to 10000";
    } else if (key == "every") {
        if (!parseSeconds(text, &mEveryNs)) return "every takes 0 to 1000000 seconds";
    } else if (key == "extra") {
        if (!parseNumber(text, UINT32_MAX, &number)) return "extra takes a number of 32 bits";
        step->event.extra = static_cast<uint32_t>(number);
    } else if (key == "batch" || key == "threads" || key == "inside" || key == "broken") {
        return readFault(key, text, step->kind);
    } else if (step->kind == Kind::kPlain) {
        return "'" + word + "' is not an option of a plain record: extra, times, every, batch, " +
               "threads, inside, broken";
    } else if (key == "value") {
        if (!parseNumber(text, UINT32_MAX, &number)) return "value takes a number of 32 bits";
        step->event.value = static_cast<uint32_t>(number);
    } else if (key == "data") {
        const Words numbers = split(text, ",");
        bool good = !numbers.empty() && numbers.size() <= 4;
        for (size_t i = 0; good && i < numbers.size(); ++i) {
            good = parseNumber(numbers[i], UINT64_MAX, &step->event.context_data[i]);
        }
        if (!good) return "data takes up to four numbers of 64 bits with commas between them";
    } else if (key == "name") {
        if (text.size() > kMaxNameLength) return "name takes at most 31 bytes";
        setName(&step->event, text);
    } else {
        return "'" + word + "' is not an option: extra, value, data, name, times, every, batch, " +
               "threads, inside, broken";
    }
    return "";
}

std::string Reader::readFault(const std::string& key, const std::string& text, Kind kind) {
    if (mFault == nullptr) mFault.reset(new Fault);
    uint64_t number = 0;
    if (key == "batch") {
        if (!parseNumber(text, kMaxBatch, &number)) return "batch takes 0 to 10000";
        mFault->batch = static_cast<int>(number);
    } else if (key == "threads") {
        if (!parseNumber(text, kMaxThreads, &number) || number < 2) return "threads takes 2 to 16";
        mFault->threads = static_cast<int>(number);
    } else if (key == "inside") {
        int position = 0;
        if (!parseSlot(text, &position)) {
            return "'" + text + "' is not a slot from which it can call back";
        }
        mFault->slot = text;
    } else {
        const bool plain = kind == Kind::kPlain;
        if (text != (plain ? "type" : "name")) {
            return std::string("broken takes ") + (plain ? "type for a plain record" : "name here");
        }
        (plain ? mFault->withoutType : mFault->unterminated) = true;
    }
    return "";
}

// No record is later than a line could say.
std::string Reader::checkRepetitions(const Step& step) {
    const double lastNs = static_cast<double>(step.offsetNs) +
                          static_cast<double>(mTimes - 1) * static_cast<double>(mEveryNs);
    if (lastNs <= kMaxSeconds * kNsPerSecond) return "";
    char reason[160];
    snprintf(reason, sizeof(reason),
             "times=%llu every=%.15g: the last repetition is at %.15g seconds, at most 1000000",
             static_cast<unsigned long long>(mTimes), static_cast<double>(mEveryNs) / kNsPerSecond,
             lastNs / kNsPerSecond);
    return reason;
}

// Repetitions reach past the lines that follow theirs.
void Reader::sortSection() {
    std::stable_sort(mScenario.steps.begin() + static_cast<ptrdiff_t>(mSectionStart),
                     mScenario.steps.end(),
                     [](const Step& a, const Step& b) { return a.offsetNs < b.offsetNs; });
}

std::string Reader::finish() {
    sortSection();
    const int64_t endNs = mScenario.steps.empty() ? 0 : mScenario.steps.back().offsetNs;
    if (mScenario.periodNs == 0) {
        mScenario.periodNs = endNs + kNsPerSecond;
    } else if (mScenario.periodNs < endNs) {
        return "'loop' starts again before the last record";
    }
    return "";
}

}  // namespace

Scenario Scenario::builtIn() {
    Scenario scenario;
    scenario.activities = {"still", "walking", "running", "cycling", "driving"};
    scenario.environments = {"home", "office", "station", "outdoors"};
    return scenario;
}

bool parseSpeed(const char* text, double* speed) {
    if (strcmp(text, "step") == 0) {
        *speed = kStep;
        return true;
    }
    return parseDouble(text, speed) && *speed >= kMinSpeed && *speed <= kMaxSpeed;
}

std::string readGrant(const std::string& line, int64_t* ns) {
    const std::vector<std::string> words = split(line, " \t");
    std::string seconds = words.size() == 2 ? words[1] : "";
    if (!seconds.empty() && seconds.back() == 's') seconds.pop_back();
    return parseSeconds(seconds, ns) ? "" : "'step' takes 0 to 1000000 seconds, such as 2s";
}

std::string readLine(const std::string& line, const Scenario& scenario, std::vector<Step>* steps) {
    Scenario now;
    now.activities = scenario.activities;
    now.environments = scenario.environments;
    const std::string reason = Reader(&now).readNow(line);
    steps->swap(now.steps);
    return reason;
}

std::string checkLoop(const Scenario& scenario) {
    const auto records = static_cast<double>(scenario.steps.size());
    const double roundSeconds = static_cast<double>(scenario.periodNs) / kNsPerSecond;
    if (!scenario.loops || records * scenario.speed <= kMaxLoopRate * roundSeconds) return "";
    char reason[160];
    snprintf(reason, sizeof(reason),
             "a loop of more than 100000 records a second: %zu in %.15g s, speed %.15g",
             scenario.steps.size(), roundSeconds, scenario.speed);
    return reason;
}

std::vector<Mistake> readScenario(const char* path, Scenario* scenario) {
    *scenario = Scenario::builtIn();
    FILE* file = fopen(path, "re");
    if (file == nullptr) return {{0, strerror(errno)}};
    std::vector<Mistake> mistakes;
    size_t number = 0;
    const auto note = [&](const std::string& reason) {
        if (!reason.empty()) mistakes.push_back({number, reason});
    };
    Reader reader(scenario);
    char* line = nullptr;
    size_t capacity = 0;
    for (ssize_t length; (length = getline(&line, &capacity, file)) >= 0;) {
        ++number;
        note(reader.read(std::string(line, static_cast<size_t>(length))));
    }
    const bool failed = ferror(file) != 0;
    const int cause = errno;
    free(line);
    fclose(file);
    if (failed) return {{0, strerror(cause)}};
    note(reader.finish());
    return mistakes;
}

bool readScenario(const char* path, Scenario* scenario, std::string* error) {
    const std::vector<Mistake> mistakes = readScenario(path, scenario);
    if (mistakes.empty()) return true;
    const Mistake& first = mistakes.front();
    *error = std::string(path) + ":" + (first.line == 0 ? "" : std::to_string(first.line) + ":") +
             " " + first.reason;
    return false;
}

}  // namespace ar_simulator
