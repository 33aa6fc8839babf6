// SPDX-License-Identifier: GPL-2.0
#include <iostream>

#include "kelmctl/run.h"

int main(int argc, char *argv[])
{
    return kelmctl::run({argv, static_cast<std::size_t>(argc)}, std::cout, std::cerr);
}
