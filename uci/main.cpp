#include <cstdio>
#include <cstring>
#include "board/platform.h"
#include "uci/uci.h"

int main(int argc, char** argv) {
    use_bare_line_feeds();
    uci_startup();
    if (argc == 2 && std::strncmp(argv[1], "pgo", 3) == 0) {
        run_benchmark();
    } else {
        // A line longer than the buffer is refused whole: the rest up to its line feed
        // is read and dropped. End of input leaves as quit does. Whether the buffer was
        // filled is told by its last byte, which fgets overwrites with its terminator
        // only then: the length by strlen would stop at a NUL byte inside the line and
        // let the line's tail through as a command of its own.
        static char line[8192];
        line[0] = 0;
        for (;;) {
            line[sizeof line - 1] = 1;
            if (!std::fgets(line, sizeof line, stdin)) break;
            if (line[sizeof line - 1] == 0 && line[sizeof line - 2] != '\n') {
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
