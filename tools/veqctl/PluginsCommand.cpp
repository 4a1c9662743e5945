#include "tools/veqctl/PluginsCommand.h"

#include "sdk/ControlClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <memory>
#include <ostream>

namespace Veq::Tools {

PluginsCommand::PluginsCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "plugins", "List the plugins the service found and the instances it runs (as the service's own user)");
    subcommand_->footer(std::string("The output is described in docs/plugins.md.\n\n") + ExitCodes::Help());
}

bool PluginsCommand::Selected() const
{
    return subcommand_->parsed();
}

int PluginsCommand::Run(std::ostream& out, std::ostream& err) const
{
    Sdk::ControlClient client(Sdk::DataRoot::Resolve(common_.root), common_.Timeout());
    Sdk::ControlClient::Result result;
    if (auto error = client.ListPlugins(result)) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    if (!result.isSuccess) {
        err << "veqctl: the service did not list its plugins: " << result.message.statusText << "\n";
        return kRejected;
    }
    // Indented for people; the service's own text is one line.
    Json::Value listing;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const std::string& text = result.message.notification.payload;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &listing, &errors)) {
        out << text << "\n";
        return kDone;
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    out << Json::writeString(writer, listing) << "\n";
    return kDone;
}

}  // namespace Veq::Tools
