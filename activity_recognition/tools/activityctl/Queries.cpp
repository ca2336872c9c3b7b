// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "Commands.h"

namespace activityctl {
namespace {

nlohmann::json listJson(const Side& side, const std::vector<std::string>& names) {
    nlohmann::json list = nlohmann::json::array();
    for (size_t i = 0; i < names.size(); ++i) list.push_back({{"id", i}, {"name", names[i]}});
    return {{side.plural(), std::move(list)}};
}

nlohmann::json currentJson(Side& side, const std::vector<std::string>& names) {
    nlohmann::json records = nlohmann::json::array();
    for (const Record& record : side.current()) {
        records.push_back(toJson(record, side.noun(), names));
    }
    return records;
}

std::string currentText(Side& side, const std::vector<std::string>& names,
                        const std::string& indent, const Output& output) {
    std::string text;
    for (const Record& record : side.current()) {
        if (!text.empty()) text += '\n';
        text += indent + toText(record, names, output);
    }
    return text.empty() ? indent + "nothing is current" : text;
}

// One side's part of the status; side may be NULL.
void addStatus(Side* side, const char* noun, const Output& output, nlohmann::json& json,
               std::string& text) {
    text += fmt::format("\n{}", noun);
    if (side == nullptr) {
        json[noun] = nullptr;
        text += ": not offered by the native module";
        return;
    }
    const auto names = side->names();
    json[noun] = listJson(*side, names);
    json[noun]["current"] = currentJson(*side, names);
    text += fmt::format("\n  supported: {}\n  current:\n{}",
                        printable(fmt::format("{}", fmt::join(names, ", "))),
                        currentText(*side, names, "    ", output));
}

}  // namespace

ExitStatus list(Side& side, Output& output) {
    const auto names = side.names();
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) {
        text += fmt::format("{}{:>3} {}", i ? "\n" : "", i, printable(names[i]));
    }
    if (names.empty()) text = fmt::format("the service supports no {}", side.plural());
    output.print("list", listJson(side, names), text);
    return kOk;
}

ExitStatus current(Side& side, Output& output) {
    const auto names = side.names();
    if (output.json()) {
        output.print("current", {{"records", currentJson(side, names)}}, {});
    } else {
        output.print("current", {}, currentText(side, names, "", output));
    }
    return kOk;
}

ExitStatus status(const Options& options, Output& output) {
    Service service(options.instance, options.version, options.waitNs);
    nlohmann::json json{{"service", service.fullName()}};
    std::string text = service.fullName();

    std::vector<std::string> versions;
    const auto chain = service.interfaceChain();
    json["interfaces"] = chain;
    text += "\ninterfaces";
    for (const std::string& name : chain) {
        text += "\n  " + name;
        if (name == V1_0::IActivityRecognition::descriptor) versions.push_back("1.0");
        if (name == V1_1::IActivityRecognition::descriptor) versions.push_back("1.1");
    }
    json["versions"] = versions;
    text += fmt::format("\nversions\n  {}", fmt::join(versions, ", "));

    addStatus(service.findActivities().get(), "activity", output, json, text);
    addStatus(service.findEnvironments().get(), "environment", output, json, text);
    output.print("status", std::move(json), text);
    return kOk;
}

}  // namespace activityctl
