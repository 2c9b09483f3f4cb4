#include "Pages.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Completion.h"
#include "HelpTree.h"
#include "ManPage.h"

namespace qel {
namespace {

void Write(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

void WriteManPages(const std::filesystem::path& folder, const HelpCommand& command,
                   const HelpCommand& root, const HelpCommand* parent) {
    Write(folder / (PageName(command) + ".1"), ManPageOf(command, root, parent));
    for (const HelpCommand& verb : command.verbs) {
        WriteManPages(folder, verb, root, &command);
    }
}

}  // namespace

void AddPagesOption(CLI::App& app) {
    app.add_option_function<std::string>("--write-pages",
                                         [&app](const std::string& folder) {
                                             const std::filesystem::path base(folder);
                                             const HelpCommand root = HelpTreeOf(app);
                                             WriteManPages(base / "man1", root, root, nullptr);
                                             Write(base / "completions" / root.words.front(),
                                                   CompletionOf(root));
                                             throw CLI::Success();
                                         })
        ->group("");
}

}  // namespace qel
