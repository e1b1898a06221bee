#include <cstdio>
#include <cstring>
#include "uci/uci.h"

int main(int argc, char** argv) {
    uci_startup();
    if (argc == 2 && std::strncmp(argv[1], "pgo", 3) == 0) {
        run_benchmark();
    } else {
        // A line longer than the buffer is refused whole: the rest up to its line feed
        // is read and dropped. End of input leaves as quit does.
        static char line[8192];
        line[0] = 0;
        while (std::fgets(line, sizeof line, stdin)) {
            size_t len = std::strlen(line);
            if (len == sizeof line - 1 && line[len - 1] != '\n') {
                int c;
                while ((c = std::getchar()) != EOF && c != '\n') {
                }
                continue;
            }
            if (!handle_line(line)) break;
        }
    }
    uci_shutdown();
    return 0;
}
