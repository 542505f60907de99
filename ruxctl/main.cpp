// ruxctl: the service's client for the command line.

#include <exception>
#include <iostream>

#include "ruxctl/client.h"
#include "ruxctl/command_line.h"

int main(int argc, char** argv) {
    try {
        return ruxctl::runCommandLine(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "ruxctl: " << error.what() << "\n";
        return ruxctl::kFailed;
    }
}
