// SPDX-License-Identifier: Apache-2.0
// The rules that a module is held to, and what became of them.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace modulecheck {

// Ids are stable: scripts of module authors refer to them.
struct Rule {
    const char* id;
    const char* expected;
    const char* hint;  // how to mend a module that breaks it
};

const std::vector<Rule>& allRules();

struct Finding {
    std::string rule;
    std::string seen;
};

class Report {
  public:
    void addFinding(const std::string& rule, const std::string& seen);
    void addNote(const std::string& text) { mNotes.insert(text); }
    void addExercised(const std::string& rule) { mExercised.insert(rule); }

    bool has(const std::string& rule) const;
    // strict: a rule that nothing was seen of counts as broken.
    bool isClean(bool strict) const;
    std::string text(const std::string& module, bool strict) const;
    std::string json(const std::string& module, bool strict) const;

  private:
    std::vector<std::string> rules(bool exercised) const;

    std::vector<Finding> mFindings;
    std::set<std::string> mNotes;
    std::set<std::string> mExercised;
};

std::string rulesText();

}  // namespace modulecheck
