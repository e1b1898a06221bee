// vestra-book: looks into Polyglot books and builds them from PGN games.
//
//   vestra-book show FILE FEN|startpos
//       every entry of the position: move, weight, share of the total, learn field
//   vestra-book make GAMES.pgn OUT.bin [--max-ply N] [--min-games K]
//       a book of the moves played in the first N plies (default 20) of the games,
//       keeping the moves of a position that at least K games (default 1) played.
//
// Weights of `make`: every game that plays a move in a position adds 2 to that move
// when the side that played it won, 1 when the game was drawn, 0 when it lost. A game
// counts once per position and move, however often it passes there. Games without a
// result (* or none) carry no information on the moves and are skipped; a game with a
// move that cannot be read or is illegal is reported on stderr and left out whole.
// When the heaviest move of a position exceeds the 16-bit field, the weights of that
// position are scaled down together, a nonzero weight staying at least 1. Entries are
// sorted by key, then by falling weight, then by move word; the learn field is 0.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>
#include "book/book.h"

static const char* START_FEN = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

static int usage() {
    std::fprintf(stderr,
                 "usage: vestra-book show FILE FEN|startpos\n"
                 "       vestra-book make GAMES.pgn OUT.bin [--max-ply N] [--min-games K]\n");
    return 2;
}

static std::unique_ptr<SearchThread> new_thread() {
    std::unique_ptr<SearchThread> t(new SearchThread());
    t->top = t->stack;
    return t;
}

// The book's own notation: real squares, castling as the king taking its rook.
static void word_text(u16 word, char* out) {
    static const char promo[8] = {0, 'n', 'b', 'r', 'q', 0, 0, 0};
    int from = (word >> 6) & 63, to = word & 63;
    int n = std::snprintf(out, 8, "%c%c%c%c", 'a' + (from & 7), '1' + (from >> 3), 'a' + (to & 7), '1' + (to >> 3));
    if (promo[(word >> 12) & 7]) out[n++] = promo[(word >> 12) & 7];
    out[n] = 0;
}

static int cmd_show(const char* path, const std::string& fen) {
    auto thread = new_thread();
    if (!fen_is_acceptable(fen.c_str())) {
        std::fprintf(stderr, "vestra-book: bad FEN: %s\n", fen.c_str());
        return 1;
    }
    if (FILE* f = std::fopen(path, "rb"))
        std::fclose(f);
    else {
        std::fprintf(stderr, "vestra-book: cannot open %s\n", path);
        return 1;
    }
    set_position(thread.get(), fen.c_str(), nullptr);
    const Position* pos = thread->top;
    u64 key = book_key(pos);
    const int max = 65536;
    std::vector<BookEntry> entries(max);
    int count = book_entries(path, key, entries.data(), max);
    i64 total = 0;
    for (int i = 0; i < count; ++i) total += entries[i].weight;
    std::printf("key %016llx: %d entr%s, total weight %lld\n", (unsigned long long)key, count,
                count == 1 ? "y" : "ies", (long long)total);
    for (int i = 0; i < count; ++i) {
        char text[8], raw[8];
        move_text(pos, book_word_to_move(pos, entries[i].move), text);
        word_text(entries[i].move, raw);
        double share = total ? 100.0 * entries[i].weight / double(total) : 0.0;
        std::printf("%-6s weight %5u %6.2f%% learn %u", text, entries[i].weight, share, entries[i].learn);
        if (std::strcmp(text, raw) != 0) std::printf(" (stored as %s)", raw);
        std::printf("\n");
    }
    return 0;
}

// ---------------------------------------------------------------------------------
// SAN

// The legal move that a SAN (or coordinate) token names, or 0 when it names none or
// more than one.
static u32 parse_san(const Position* pos, const char* token) {
    char s[32];
    size_t len = std::strlen(token);
    if (len == 0 || len >= sizeof s) return 0;
    std::memcpy(s, token, len + 1);
    while (len && std::strchr("+#!?", s[len - 1])) s[--len] = 0;
    if (len == 0) return 0;

    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(pos, list);

    int castle_to = -1;
    if (!std::strcmp(s, "O-O") || !std::strcmp(s, "0-0")) castle_to = 6;
    if (!std::strcmp(s, "O-O-O") || !std::strcmp(s, "0-0-0")) castle_to = 2;
    if (castle_to >= 0) {
        for (ScoredMove* m = list; m < end; ++m)
            if ((m->move & MOVE_IS_CASTLING) && move_to(m->move) == castle_to) return m->move;
        return 0;
    }

    int piece = PAWN;
    size_t i = 0;
    if (const char* p = std::strchr("NBRQK", s[0]); p && s[0]) {
        piece = KNIGHT + int(p - "NBRQK");
        i = 1;
    }
    int promotion = NO_PIECE;
    if (char* eq = std::strchr(s, '=')) {
        const char* p = eq[1] ? std::strchr("NBRQnbrq", eq[1]) : nullptr;
        if (!p || eq[2]) return 0;
        promotion = KNIGHT + int(p - "NBRQnbrq") % 4;
        *eq = 0;
        len = size_t(eq - s);
    } else if (piece == PAWN && len >= 3 && (s[len - 2] == '8' || s[len - 2] == '1')) {
        if (const char* p = std::strchr("NBRQnbrq", s[len - 1]); p && s[len - 1]) {
            promotion = KNIGHT + int(p - "NBRQnbrq") % 4;
            s[--len] = 0;
        }
    }
    if (len < i + 2) return 0;
    char tf = s[len - 2], tr = s[len - 1];
    if (tf < 'a' || tf > 'h' || tr < '1' || tr > '8') return 0;
    int to = (tr - '1') * 8 + (tf - 'a');
    int from_file = -1, from_rank = -1;
    for (size_t k = i; k < len - 2; ++k) {
        char c = s[k];
        if (c == 'x' || c == ':' || c == '-') continue;
        if (c >= 'a' && c <= 'h' && from_file < 0 && from_rank < 0)
            from_file = c - 'a';
        else if (c >= '1' && c <= '8' && from_rank < 0)
            from_rank = c - '1';
        else
            return 0;
    }

    const int flip = (pos->flags & POS_BLACK) ? 56 : 0;
    u32 found = 0;
    for (ScoredMove* m = list; m < end; ++m) {
        u32 mv = m->move;
        if (mv & MOVE_IS_CASTLING) continue;
        if (move_piece(mv) != piece || (move_to(mv) ^ flip) != to) continue;
        int from = move_from(mv) ^ flip;
        if (from_file >= 0 && (from & 7) != from_file) continue;
        if (from_rank >= 0 && (from >> 3) != from_rank) continue;
        if (move_promotion(mv) != promotion) continue;
        if (found) return 0;  // ambiguous
        found = mv;
    }
    return found;
}

// The book word of a legal move: real squares, castling as king takes own rook.
static u16 move_word(const Position* pos, u32 move) {
    int from = move_from(move), to = move_to(move);
    if (move & MOVE_IS_CASTLING) to = to == 6 ? (pos->castling & 15) : ((pos->castling >> 4) & 15);
    const int flip = (pos->flags & POS_BLACK) ? 56 : 0;
    int promotion = move_promotion(move) ? move_promotion(move) - 1 : 0;
    return u16((to ^ flip) | (from ^ flip) << 6 | promotion << 12);
}

// ---------------------------------------------------------------------------------
// PGN

struct Game {
    long line = 0;  // where it starts, for messages
    std::string fen;
    std::string tag_result;
    std::string result;  // the termination marker of the movetext
    bool chess960 = false;
    std::vector<std::string> moves;
    bool empty() const { return moves.empty() && fen.empty() && tag_result.empty() && result.empty(); }
};

struct Stat {
    u32 games = 0;
    u32 last_game = 0;
    u64 weight = 0;
};

struct Builder {
    int max_ply = 20;
    int min_games = 1;
    std::unordered_map<u64, std::unordered_map<u16, Stat>> table;
    u32 games_read = 0, games_used = 0, games_bad = 0, games_unfinished = 0;
    std::unique_ptr<SearchThread> thread = new_thread();
    struct Ply {
        u64 key;
        u16 word;
        bool white;
    };
    std::vector<Ply> plies;
};

static bool is_result(const std::string& t) { return t == "1-0" || t == "0-1" || t == "1/2-1/2" || t == "*"; }

static void finish_game(Builder& b, Game& g) {
    if (g.empty()) return;
    ++b.games_read;
    const std::string& result = !g.result.empty() ? g.result : g.tag_result;
    int white_points, black_points;
    if (result == "1-0") white_points = 2, black_points = 0;
    else if (result == "0-1") white_points = 0, black_points = 2;
    else if (result == "1/2-1/2") white_points = 1, black_points = 1;
    else {
        ++b.games_unfinished;
        g = Game();
        return;
    }
    const char* fen = g.fen.empty() ? START_FEN : g.fen.c_str();
    if (!fen_is_acceptable(fen)) {
        std::fprintf(stderr, "game %u (line %ld): bad FEN \"%s\", game skipped\n", b.games_read, g.line, fen);
        ++b.games_bad;
        g = Game();
        return;
    }
    engine_options.chess960 = g.chess960;
    SearchThread* t = b.thread.get();
    set_position(t, fen, nullptr);
    b.plies.clear();
    for (size_t ply = 0; ply < g.moves.size(); ++ply) {
        const Position* pos = t->top;
        u32 move = parse_san(pos, g.moves[ply].c_str());
        if (!move) {
            std::fprintf(stderr, "game %u (line %ld): illegal or unreadable move \"%s\" at ply %zu, game skipped\n",
                         b.games_read, g.line, g.moves[ply].c_str(), ply + 1);
            ++b.games_bad;
            g = Game();
            return;
        }
        if (int(ply) < b.max_ply) b.plies.push_back({book_key(pos), move_word(pos, move), !(pos->flags & POS_BLACK)});
        make_move(t, move, nullptr);
        // Only the present position matters here: keep the stack at its bottom.
        t->stack[0] = *t->top;
        t->top = t->stack;
    }
    ++b.games_used;
    for (const Builder::Ply& p : b.plies) {
        Stat& s = b.table[p.key][p.word];
        if (s.last_game == b.games_read) continue;
        s.last_game = b.games_read;
        ++s.games;
        s.weight += p.white ? white_points : black_points;
    }
    g = Game();
}

// Reads one tag body "Name "value"" after '['.
static void read_tag(FILE* f, long& line, Game& g) {
    std::string name, value;
    int c;
    while ((c = std::fgetc(f)) != EOF && std::isspace(c)) line += c == '\n';
    while (c != EOF && !std::isspace(c) && c != '"' && c != ']') {
        name += char(c);
        c = std::fgetc(f);
    }
    while (c != EOF && c != '"' && c != ']') {
        line += c == '\n';
        c = std::fgetc(f);
    }
    if (c == '"') {
        while ((c = std::fgetc(f)) != EOF && c != '"') {
            if (c == '\\') c = std::fgetc(f);
            if (c == EOF) break;
            line += c == '\n';
            value += char(c);
        }
        while (c != EOF && c != ']') {
            c = std::fgetc(f);
            line += c == '\n';
        }
    }
    if (name == "FEN") g.fen = value;
    else if (name == "Result") g.tag_result = value;
    else if (name == "Variant") {
        std::string v;
        for (char ch : value) v += char(std::tolower((unsigned char)ch));
        g.chess960 = v.find("960") != std::string::npos || v.find("fischer") != std::string::npos;
    }
}

static bool read_pgn(Builder& b, const char* path) {
    FILE* f = std::fopen(path, "rb");
    if (!f) {
        std::fprintf(stderr, "vestra-book: cannot open %s\n", path);
        return false;
    }
    Game g;
    long line = 1;
    int depth = 0;  // variation nesting
    bool line_start = true;
    int c = std::fgetc(f);
    while (c != EOF) {
        if (c == '\n') {
            ++line;
            line_start = true;
            c = std::fgetc(f);
            continue;
        }
        bool at_line_start = line_start;
        line_start = false;
        if (std::isspace(c)) {
            c = std::fgetc(f);
        } else if (c == '%' && at_line_start) {  // escape line
            while (c != EOF && c != '\n') c = std::fgetc(f);
        } else if (c == ';') {
            while (c != EOF && c != '\n') c = std::fgetc(f);
        } else if (c == '{') {
            while ((c = std::fgetc(f)) != EOF && c != '}') line += c == '\n';
            c = std::fgetc(f);
        } else if (c == '(') {
            ++depth;
            c = std::fgetc(f);
        } else if (c == ')') {
            if (depth > 0) --depth;
            c = std::fgetc(f);
        } else if (c == '[' && depth == 0) {
            // A tag after movetext starts the next game, also without a result.
            if (!g.moves.empty() || !g.result.empty()) finish_game(b, g);
            if (g.empty()) g.line = line;
            read_tag(f, line, g);
            c = std::fgetc(f);
        } else {
            std::string token;
            while (c != EOF && !std::isspace(c) && !std::strchr("{}()[];", c)) {
                if (token.size() < 64) token += char(c);  // longer is no move anyway
                c = std::fgetc(f);
            }
            if (token.empty()) {  // a lone bracket inside a variation, or '}' / ']'
                c = std::fgetc(f);
                continue;
            }
            if (depth > 0 || token[0] == '$') continue;
            if (is_result(token)) {
                if (g.empty()) g.line = line;
                g.result = token;
                finish_game(b, g);
                continue;
            }
            // Move numbers, also glued to the move: "12.", "12...", "12.Nf3".
            size_t k = 0;
            if (token != "0-0" && token != "0-0-0") {
                while (k < token.size() && std::isdigit((unsigned char)token[k])) ++k;
                if (k < token.size() && token[k] != '.') k = 0;  // not a number after all
                while (k < token.size() && token[k] == '.') ++k;
            }
            std::string move = token.substr(k);
            if (move.empty() || move == "e.p." || move == "!" || move == "?" || move == "!!" || move == "??" ||
                move == "!?" || move == "?!")
                continue;
            if (g.empty()) g.line = line;
            g.moves.push_back(move);
        }
    }
    finish_game(b, g);
    std::fclose(f);
    return true;
}

static void put_be(unsigned char* p, u64 v, int n) {
    for (int i = n - 1; i >= 0; --i, v >>= 8) p[i] = u8(v);
}

static int cmd_make(const char* pgn, const char* out, int max_ply, int min_games) {
    Builder b;
    b.max_ply = max_ply;
    b.min_games = min_games;
    if (!read_pgn(b, pgn)) return 1;

    std::vector<BookEntry> entries;
    for (auto& [key, moves] : b.table) {
        u64 heaviest = 0;
        size_t first = entries.size();
        for (auto& [word, s] : moves) {
            if (s.games < u32(b.min_games)) continue;
            entries.push_back(BookEntry{key, word, 0, 0});
            heaviest = std::max(heaviest, s.weight);
        }
        for (size_t i = first; i < entries.size(); ++i) {
            u64 w = moves[entries[i].move].weight;
            if (heaviest > 65535 && w) w = std::max<u64>(1, w * 65535 / heaviest);
            entries[i].weight = u16(w);
        }
    }
    std::sort(entries.begin(), entries.end(), [](const BookEntry& a, const BookEntry& c) {
        if (a.key != c.key) return a.key < c.key;
        if (a.weight != c.weight) return a.weight > c.weight;
        return a.move < c.move;
    });

    FILE* f = std::fopen(out, "wb");
    if (!f) {
        std::fprintf(stderr, "vestra-book: cannot write %s\n", out);
        return 1;
    }
    size_t positions = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        unsigned char rec[16];
        put_be(rec, entries[i].key, 8);
        put_be(rec + 8, entries[i].move, 2);
        put_be(rec + 10, entries[i].weight, 2);
        put_be(rec + 12, entries[i].learn, 4);
        positions += i == 0 || entries[i].key != entries[i - 1].key;
        if (std::fwrite(rec, 16, 1, f) != 1) {
            std::fclose(f);
            std::fprintf(stderr, "vestra-book: write error on %s\n", out);
            return 1;
        }
    }
    if (std::fclose(f) != 0) {
        std::fprintf(stderr, "vestra-book: write error on %s\n", out);
        return 1;
    }
    std::printf("games %u: used %u, bad %u, without result %u; %zu positions, %zu entries written to %s\n",
                b.games_read, b.games_used, b.games_bad, b.games_unfinished, positions, entries.size(), out);
    return 0;
}

int main(int argc, char** argv) {
    init_board_tables();
    set_default_options(&engine_options);
    if (argc >= 4 && !std::strcmp(argv[1], "show")) {
        std::string fen;
        for (int i = 3; i < argc; ++i) {
            if (i > 3) fen += ' ';
            fen += argv[i];
        }
        if (fen == "startpos") fen = START_FEN;
        return cmd_show(argv[2], fen);
    }
    if (argc >= 4 && !std::strcmp(argv[1], "make")) {
        int max_ply = 20, min_games = 1;
        for (int i = 4; i < argc; ++i) {
            if (!std::strcmp(argv[i], "--max-ply") && i + 1 < argc)
                max_ply = std::atoi(argv[++i]);
            else if (!std::strcmp(argv[i], "--min-games") && i + 1 < argc)
                min_games = std::atoi(argv[++i]);
            else
                return usage();
        }
        if (max_ply < 0 || min_games < 1) return usage();
        return cmd_make(argv[2], argv[3], max_ply, min_games);
    }
    return usage();
}
