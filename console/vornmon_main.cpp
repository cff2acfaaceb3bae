// vornmon: the console of the vornrta agent.
#include <cstdio>
#include <string>
#include <vector>

#include "console/vm_cli.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return vornmon::run_vornmon(args, stdout, stderr, stdin);
}
