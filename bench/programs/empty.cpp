// SPDX-License-Identifier: Apache-2.0
// A Qt program that does nothing, for comparison.
#include <QCoreApplication>

#include <cstdio>

int main(int argc, char* argv[]) {
    const QCoreApplication application(argc, argv);
    std::puts("ready");
    std::fflush(stdout);
    std::getchar();
    return 0;
}
