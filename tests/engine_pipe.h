// Drives the real engine binary through pipes, with deadlines on every read so that a
// hung engine fails the test instead of hanging it.
#pragma once
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <string>
#include <memory>
#include <vector>
#include "board/board.h"
#include "search/thread.h"

struct EnginePipe {
    pid_t pid = -1;
    int to_engine = -1;
    int from_engine = -1;
    std::string pending;
    std::vector<std::string> lines;  // every line read so far

    explicit EnginePipe(const std::vector<std::string>& args = {}) {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) return;
        pid = fork();
        if (pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            close(in[1]);
            close(out[0]);
            std::vector<char*> argv{const_cast<char*>(VESTRA_ENGINE_PATH)};
            for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(VESTRA_ENGINE_PATH, argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to_engine = in[1];
        from_engine = out[0];
        signal(SIGPIPE, SIG_IGN);
    }

    ~EnginePipe() {
        if (to_engine >= 0) close(to_engine);
        if (pid > 0) {
            for (int i = 0; i < 100 && waitpid(pid, nullptr, WNOHANG) == 0; ++i) usleep(20000);
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (from_engine >= 0) close(from_engine);
    }

    void send(const std::string& text) {
        size_t done = 0;
        while (done < text.size()) {
            ssize_t n = write(to_engine, text.data() + done, text.size() - done);
            if (n <= 0) return;
            done += size_t(n);
        }
    }

    // Milliseconds from now to `deadline`, zero or less once it has passed.
    static int ms_left(std::chrono::steady_clock::time_point deadline) {
        return int(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                       .count());
    }

    // Next whole line, or false at the deadline or end of output.
    bool read_line(std::string* line, int timeout_ms) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            size_t nl = pending.find('\n');
            if (nl != std::string::npos) {
                *line = pending.substr(0, nl);
                pending.erase(0, nl + 1);
                lines.push_back(*line);
                return true;
            }
            int left = ms_left(deadline);
            if (left <= 0) return false;
            pollfd p{from_engine, POLLIN, 0};
            if (poll(&p, 1, left) <= 0) continue;
            char buf[4096];
            ssize_t n = read(from_engine, buf, sizeof buf);
            if (n <= 0) return false;
            pending.append(buf, size_t(n));
        }
    }

    // Reads until a line starting with `prefix`; returns it, or "" on timeout.
    std::string wait_for(const std::string& prefix, int timeout_ms = 10000) {
        std::string line;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            int left = ms_left(deadline);
            if (left <= 0 || !read_line(&line, left)) return "";
            if (line.rfind(prefix, 0) == 0) return line;
        }
    }

    // Closes input and returns the exit status (-1 if it did not end in time).
    int finish(int timeout_ms = 5000) {
        if (to_engine >= 0) close(to_engine);
        to_engine = -1;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                // What the engine wrote just before it ended is still in the pipe.
                std::string rest;
                while (read_line(&rest, 100)) {
                }
                if (WIFSIGNALED(status)) std::fprintf(stderr, "engine killed by signal %d\n", WTERMSIG(status));
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::string line;
            if (!read_line(&line, 10)) usleep(10000);
        }
        return -1;
    }
};

// The move of a "bestmove" line, "" for any other line.
inline std::string bestmove_word(const std::string& line) {
    if (line.rfind("bestmove ", 0) != 0) return "";
    std::string rest = line.substr(9);
    return rest.substr(0, rest.find(' '));
}

// The position after `moves` (nullptr or "" for none) from `fen`, set up in-process.
inline std::unique_ptr<SearchThread> board_after(const char* fen, const char* moves) {
    static bool ready = false;
    if (!ready) {
        set_default_options(&engine_options);
        init_board_tables();
        ready = true;
    }
    auto thread = std::make_unique<SearchThread>();
    set_position(thread.get(), fen, moves && *moves ? moves : nullptr);
    return thread;
}

// Whether `text` names a legal move after `moves` from `fen`.
inline bool is_legal_text(const char* fen, const char* moves, const std::string& text) {
    auto thread = board_after(fen, moves);
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(thread->top, list);
    for (ScoredMove* p = list; p < end; ++p) {
        char buf[8];
        move_text(thread->top, p->move, buf);
        if (text == buf) return true;
    }
    return false;
}
