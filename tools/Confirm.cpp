#include "Confirm.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace qel {

void Confirm(const std::string& question) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
        throw std::runtime_error("there is no terminal to ask on: say --yes if it is to be done");
    }
    (void)std::fprintf(stderr, "%s [y/N] ", question.c_str());
    std::string answer;
    (void)std::getline(std::cin, answer);
    if (answer != "y" && answer != "yes") {
        throw std::runtime_error("nothing was done");
    }
}

}  // namespace qel
