#include "tools/veqctl/DiagnosticsCommand.h"

#include "sdk/ControlClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <ostream>

namespace Veq::Tools {
namespace {

// The service asks all plugins at once and gives up on one after 30 s, but the answer waits for
// the plugin's call to end, which its connection bounds at 60 s.
constexpr std::chrono::milliseconds kLeastWait{75000};

}  // namespace

DiagnosticsCommand::DiagnosticsCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "diagnostics", "Ask the service's plugins for their diagnostics files (as the service's own user)");
    subcommand_->add_option("--plugin", plugin_, "Only this plugin (its id); default: every running plugin");
    subcommand_->add_option("--folder", folder_, "The folder the plugins put their files in")->required();
    subcommand_->footer(std::string("Prints one JSON line per plugin and side; see docs/diagnostics.md.\n"
                                    "Exits with 7 when a running plugin was not reached.\n\n") +
                        ExitCodes::Help());
}

bool DiagnosticsCommand::Selected() const
{
    return subcommand_->parsed();
}

int DiagnosticsCommand::Run(std::ostream& out, std::ostream& err) const
{
    const std::string folder = std::filesystem::absolute(folder_).lexically_normal().string();
    Sdk::ControlClient client(Sdk::DataRoot::Resolve(common_.root), std::max(common_.Timeout(), kLeastWait));
    Sdk::ControlClient::Result result;
    if (auto error = client.CollectDiagnostics(plugin_, folder, result)) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    if (!result.isSuccess) {
        err << "veqctl: the service did not collect diagnostics: " << result.message.statusText << "\n";
        return kRejected;
    }
    Json::Value answer;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const std::string& text = result.message.notification.payload;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &answer, &errors) || !answer["results"].isArray()) {
        err << "veqctl: the service's answer is not a list of results: " << text << "\n";
        return kFailed;
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    bool allReached = true;
    for (const Json::Value& entry : answer["results"]) {
        out << Json::writeString(writer, entry) << "\n";
        // A plugin that does not run has nothing to give; one that runs and was not reached failed.
        allReached = allReached && (entry["side"].asString() == "none" || entry["delivered"].asBool());
    }
    if (!allReached) {
        err << "veqctl: a running plugin was not reached\n";
        return kNotReached;
    }
    return kDone;
}

}  // namespace Veq::Tools
