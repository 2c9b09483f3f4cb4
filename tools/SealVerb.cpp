#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "BlockView.h"
#include "CommandLine.h"
#include "File.h"
#include "ObjectName.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

[[noreturn]] void Fail(const std::string& name, const std::string& what) {
    throw std::runtime_error(fmt::format("block {}: {}", name, what));
}

SharedMemoryMetadata RecordOfLive(const std::string& name) {
    const auto block = LookAtBlock(name, ProcessSurvey());  // who else uses it does not matter
    if (!block) {
        throw std::runtime_error("there is no block " + name);
    }
    if (!block->record) {
        Fail(name, "was never made: its lock file holds no record");
    }
    if (block->creator != BlockCreator::Alive) {
        Fail(name, "its creator is " + TextOf(block->creator));
    }
    return *block->record;
}

/// Opened to write, without which the system takes no seal.
File MemoryOf(const std::string& name, const SharedMemoryMetadata& record) {
    const std::string path = BlockMemoryPath(record.pid, record.fd);
    File memory(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!memory.IsOpen()) {
        Fail(name,
             fmt::format("cannot open {} to write: {}({})", path, errno, std::strerror(errno)));
    }
    if (!IsMemoryOf(memory, record)) {  // the numbers may have been used again meanwhile
        Fail(name, "its creator is " + TextOf(BlockCreator::Other));
    }
    return memory;
}

int RunSeal(const std::string& name) {
    RequireOrUsage([&] { RequireObjectName("block", name, kLongestBlockName); });
    const File memory = MemoryOf(name, RecordOfLive(name));
    const int seals = fcntl(memory.Fd(), F_GET_SEALS);
    if (seals == -1) {
        Fail(name, fmt::format("its memory cannot be sealed: {}({})", errno, std::strerror(errno)));
    }
    const auto has = [seals](int seal) {
        return (static_cast<unsigned>(seals) & static_cast<unsigned>(seal)) != 0;
    };
    if (has(F_SEAL_SHRINK)) {
        Print(fmt::format("block {} is sealed against shrinking already\n", OneLine(name)));
        return 0;
    }
    if (has(F_SEAL_SEAL)) {
        Fail(name, "it is sealed against further seals");
    }
    if (fcntl(memory.Fd(), F_ADD_SEALS, F_SEAL_SHRINK) != 0) {
        Fail(name, fmt::format("cannot seal it: {}({})", errno, std::strerror(errno)));
    }
    Print(fmt::format("block {} is sealed against shrinking\n", OneLine(name)));
    return 0;
}

}  // namespace

Verb AddSealVerb(CLI::App& app) {
    const auto name = std::make_shared<std::string>();
    CLI::App* const command = app.add_subcommand("seal", "Seal a live block against shrinking");
    command->add_option("NAME", *name, "Name of the block")->required()->option_text(" ");
    command->footer(
        "Whoever can open a block to write can cut it, and who then reads what is gone dies of\n"
        "SIGBUS. Of a sealed block nothing can be cut any more, by anybody. The seal stays\n"
        "until the memory of the block has gone; a block that a writer makes anew has none. It\n"
        "takes the right to look into the process that made the block: the same user, or root.\n"
        "\n"
        "Examples:\n"
        "  qev seal settings");
    return {command, [name] { return RunSeal(*name); }};
}

}  // namespace qel
