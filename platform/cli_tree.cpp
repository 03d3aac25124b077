// Command trees of the command-line framework: parsing of the definitions into one tree,
// matching a typed line against it (abbreviations, number ranges, strings, rest-of-line
// arguments, storage keywords, the "no" prefix), help listings and completion for the
// interactive terminal, and running the matched handler with its output collected.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli_internal.h"

namespace {

enum tok_type { TOK_KEYWORD, TOK_NUMBER, TOK_STRING, TOK_REST };

struct token {
    int type = TOK_KEYWORD;
    std::string text;  // keyword text, or the token as written ("<1-3600>", "NAME", "LINE...")
    long long lo = 0;
    long long hi = 0;
    const char *help = "";
};

struct node {
    token tok;
    std::vector<std::unique_ptr<node>> children;  // in the order they were first registered
    int def = -1;                                 // first definition ending here
    int no_def = -1;                              // first definition ending here that takes "no"
    bool no_ok = false;                           // some definition through here takes "no"
};

struct def_entry {
    std::string group;
    std::string syntax;
    cli_handler_t handler;
    unsigned flags;
};

struct registry {
    node root;
    std::vector<def_entry> defs;
    bool any_no = false;
};

registry g_reg;
thread_local cli_cmd *t_current = nullptr;

const char kNoKeyword[] = "no";
const char kNoHelp[] = "Negate a command or set its defaults";
// Bounds a definition's expansion: optional tokens and choices multiply the paths.
constexpr size_t kMaxVariants = 1024;
// Longer digit strings are out of any range and would overflow.
constexpr size_t kMaxDigits = 18;

// ---------------------------------------------------------------------------------------------
// Definitions

bool is_name_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

bool is_name(const std::string &s) {
    if (s.empty()) return false;
    bool upper = false;
    for (char c : s) {
        if (!is_name_char(c)) return false;
        if (c >= 'A' && c <= 'Z') upper = true;
    }
    return upper;
}

bool all_digits(const std::string &s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

bool parse_range(const std::string &s, long long *lo, long long *hi) {
    // "<LO-HI>"
    if (s.size() < 5 || s.front() != '<' || s.back() != '>') return false;
    std::string inner = s.substr(1, s.size() - 2);
    size_t dash = inner.find('-');
    if (dash == std::string::npos) return false;
    std::string a = inner.substr(0, dash), b = inner.substr(dash + 1);
    if (!all_digits(a) || !all_digits(b) || a.size() > kMaxDigits || b.size() > kMaxDigits) return false;
    *lo = std::strtoll(a.c_str(), nullptr, 10);
    *hi = std::strtoll(b.c_str(), nullptr, 10);
    return *lo <= *hi;
}

bool parse_token(const std::string &s, token *t) {
    if (s.empty()) return false;
    t->text = s;
    if (s.front() == '<') {
        t->type = TOK_NUMBER;
        return parse_range(s, &t->lo, &t->hi);
    }
    if (s.size() > 3 && s.compare(s.size() - 3, 3, "...") == 0 && is_name(s.substr(0, s.size() - 3))) {
        t->type = TOK_REST;
        return true;
    }
    if (is_name(s)) {
        t->type = TOK_STRING;
        return true;
    }
    for (char c : s)
        if (c == '[' || c == ']' || c == '(' || c == ')' || c == '|' || c == '<' || c == '>' || c == ' ' || c == '\t')
            return false;
    t->type = TOK_KEYWORD;
    return true;
}

struct position {
    std::vector<token> alts;
    bool optional = false;
};

const char *help_at(const char *const *help, size_t i) {
    if (help == nullptr || help[i] == nullptr) return "";
    return help[i];
}

bool parse_definition(const char *syntax, const char *const *help, std::vector<position> *out) {
    if (syntax == nullptr) return false;
    std::string s(syntax);
    size_t help_index = 0;
    size_t i = 0;
    while (i < s.size()) {
        if (s[i] == ' ') {
            ++i;
            continue;
        }
        size_t end = s.find(' ', i);
        if (end == std::string::npos) end = s.size();
        std::string piece = s.substr(i, end - i);
        i = end;

        position pos;
        if (piece.front() == '[') {
            if (piece.size() < 3 || piece.back() != ']') return false;
            pos.optional = true;
            piece = piece.substr(1, piece.size() - 2);
        }
        std::vector<std::string> alts;
        if (piece.front() == '(') {
            if (piece.size() < 3 || piece.back() != ')') return false;
            std::string inner = piece.substr(1, piece.size() - 2);
            size_t start = 0;
            for (;;) {
                size_t bar = inner.find('|', start);
                alts.push_back(inner.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
                if (bar == std::string::npos) break;
                start = bar + 1;
            }
        } else {
            alts.push_back(piece);
        }
        for (const std::string &a : alts) {
            token t;
            if (!parse_token(a, &t)) return false;
            t.help = help_at(help, help_index++);
            pos.alts.push_back(t);
        }
        out->push_back(pos);
    }
    if (out->empty()) return false;
    // A rest-of-line argument swallows everything after it.
    for (size_t p = 0; p + 1 < out->size(); ++p)
        for (const token &t : (*out)[p].alts)
            if (t.type == TOK_REST) return false;
    return true;
}

void expand(const std::vector<position> &pos, size_t i, std::vector<const token *> *cur,
            std::vector<std::vector<const token *>> *out, bool *too_many) {
    if (*too_many) return;
    if (i == pos.size()) {
        if (!cur->empty()) out->push_back(*cur);
        if (out->size() > kMaxVariants) *too_many = true;
        return;
    }
    if (pos[i].optional) expand(pos, i + 1, cur, out, too_many);
    for (const token &t : pos[i].alts) {
        cur->push_back(&t);
        expand(pos, i + 1, cur, out, too_many);
        cur->pop_back();
    }
}

void insert_variant(const std::vector<const token *> &seq, int def, bool no_ok) {
    node *n = &g_reg.root;
    for (const token *t : seq) {
        node *next = nullptr;
        for (auto &c : n->children)
            if (c->tok.type == t->type && c->tok.text == t->text) {
                next = c.get();
                break;
            }
        if (next == nullptr) {
            auto fresh = std::make_unique<node>();
            fresh->tok = *t;
            next = fresh.get();
            n->children.push_back(std::move(fresh));
        }
        if (no_ok) next->no_ok = true;
        n = next;
    }
    if (n->def < 0) n->def = def;
    if (no_ok && n->no_def < 0) n->no_def = def;
}

// ---------------------------------------------------------------------------------------------
// Matching

struct word {
    std::string text;
    int off;
};

// The line up to its first CR or LF: the framework works on one line.
std::string one_line(const char *line) {
    if (line == nullptr) return std::string();
    size_t n = std::strcspn(line, "\r\n");
    return std::string(line, n);
}

std::vector<word> split_words(const std::string &line, size_t limit) {
    std::vector<word> words;
    size_t i = 0;
    while (i < limit) {
        if (line[i] == ' ' || line[i] == '\t') {
            ++i;
            continue;
        }
        size_t start = i;
        while (i < limit && line[i] != ' ' && line[i] != '\t') ++i;
        words.push_back(word{line.substr(start, i - start), static_cast<int>(start)});
    }
    return words;
}

bool eligible(const node *child, bool no) {
    return !no || child->no_ok;
}

// The definition a line ending at n runs. With "no", trailing arguments may be left out, so a
// path made only of arguments that leads to a "no" definition also completes the line.
int find_no_tail(const node *n) {
    if (n->no_def >= 0) return n->no_def;
    for (const auto &c : n->children) {
        if (!c->no_ok || c->tok.type == TOK_KEYWORD) continue;
        int d = find_no_tail(c.get());
        if (d >= 0) return d;
    }
    return -1;
}

int complete_def(const node *n, bool no) {
    return no ? find_no_tail(n) : n->def;
}

class walker {
  public:
    walker(const std::string &line, std::vector<word> words) : line_(line), words_(std::move(words)) {}
    virtual ~walker() = default;

    // Explores the readings of the words in order of preference (exact keyword; else an
    // in-range number, a string, the rest of the line, a unique keyword prefix); stops when
    // visit() says so.
    bool run() { return walk(&g_reg.root, 0, false); }

    const cli_error &error() const { return err_; }
    void fail(int offset, const std::string &text) {
        if (offset > err_.offset) {
            err_.offset = offset;
            err_.text = text;
        }
    }

  protected:
    // Called with each node the whole word list reaches; true stops the walk.
    virtual bool visit(const node *n, bool no) = 0;
    std::vector<std::pair<std::string, std::string>> args_;
    const std::string &line_;

  private:
    bool step(const node *child, size_t next, bool no, const std::string &key, const std::string &value) {
        args_.emplace_back(key, value);
        bool stop = walk(child, next, no);
        args_.pop_back();
        return stop;
    }

    bool walk(const node *n, size_t i, bool no) {
        if (i == words_.size()) return visit(n, no);
        const word w = words_[i];
        const bool may_negate = n == &g_reg.root && i == 0 && !no && g_reg.any_no;
        bool matched = false;

        if (may_negate && w.text == kNoKeyword) {
            matched = true;
            if (walk(n, i + 1, true)) return true;
        }
        if (walk_keywords(n, i, no, &matched)) return true;
        // A keyword typed in full is taken as that keyword, never as an argument that happens
        // to have the same text ("password 7" lacks its password, "topdir flash:" its path).
        if (matched) return false;
        const node *out_of_range = nullptr;
        if (walk_values(n, i, no, &matched, &out_of_range)) return true;
        int prefixes = 0;
        if (walk_prefix(n, i, no, may_negate, &matched, &prefixes)) return true;
        if (prefixes > 1) {
            fail(w.off, "% Ambiguous command: '" + w.text + "'");
        } else if (!matched) {
            if (out_of_range != nullptr)
                fail(w.off, "% Number " + w.text + " out of range " + std::to_string(out_of_range->tok.lo) + "-" +
                                std::to_string(out_of_range->tok.hi) + ".");
            else if (number_only(n, no))
                fail(w.off, "% Invalid number: '" + w.text + "'");
            else
                fail(w.off, "% Unknown command: '" + w.text + "'");
        }
        return false;
    }

    // Keywords typed in full, and a storage keyword glued to its path ("flash:/pub" reads as
    // "flash: /pub").
    bool walk_keywords(const node *n, size_t i, bool no, bool *matched) {
        const word w = words_[i];
        for (const auto &c : n->children) {
            if (c->tok.type != TOK_KEYWORD || !eligible(c.get(), no) || c->tok.text != w.text) continue;
            *matched = true;
            if (step(c.get(), i + 1, no, c->tok.text, c->tok.text)) return true;
        }
        for (const auto &c : n->children) {
            const std::string &kw = c->tok.text;
            if (c->tok.type != TOK_KEYWORD || !eligible(c.get(), no) || kw.back() != ':' ||
                w.text.size() <= kw.size() || w.text.compare(0, kw.size(), kw) != 0)
                continue;
            *matched = true;
            std::vector<word> saved = words_;
            words_[i] = word{kw, w.off};
            words_.insert(words_.begin() + static_cast<long>(i) + 1,
                          word{w.text.substr(kw.size()), w.off + static_cast<int>(kw.size())});
            bool stop = step(c.get(), i + 1, no, kw, kw);
            words_ = std::move(saved);
            if (stop) return true;
        }
        return false;
    }

    // Whether only numbers may follow n: a word that is none then gets a clearer message.
    static bool number_only(const node *n, bool no) {
        bool only = false;
        for (const auto &c : n->children) {
            if (!eligible(c.get(), no)) continue;
            if (c->tok.type != TOK_NUMBER) return false;
            only = true;
        }
        return only;
    }

    // Numbers in range, strings and the rest of the line.
    bool walk_values(const node *n, size_t i, bool no, bool *matched, const node **out_of_range) {
        const word w = words_[i];
        for (const auto &c : n->children) {
            if (c->tok.type != TOK_NUMBER || !eligible(c.get(), no)) continue;
            if (!all_digits(w.text)) continue;
            long long v = w.text.size() > kMaxDigits ? -1 : std::strtoll(w.text.c_str(), nullptr, 10);
            if (v < c->tok.lo || v > c->tok.hi) {
                if (*out_of_range == nullptr) *out_of_range = c.get();
                continue;
            }
            *matched = true;
            if (step(c.get(), i + 1, no, c->tok.text, w.text)) return true;
        }
        for (const auto &c : n->children) {
            if (!eligible(c.get(), no)) continue;
            if (c->tok.type == TOK_STRING) {
                *matched = true;
                if (step(c.get(), i + 1, no, c->tok.text, w.text)) return true;
            } else if (c->tok.type == TOK_REST) {
                *matched = true;
                if (step(c.get(), words_.size(), no, c->tok.text, line_.substr(static_cast<size_t>(w.off))))
                    return true;
            }
        }
        return false;
    }

    // A keyword (or "no") abbreviated to an unambiguous prefix; *prefixes counts the candidates.
    bool walk_prefix(const node *n, size_t i, bool no, bool may_negate, bool *matched, int *prefixes) {
        const word w = words_[i];
        const node *prefix = nullptr;
        bool negate_prefix = false;
        if (may_negate && w.text != kNoKeyword && std::strncmp(kNoKeyword, w.text.c_str(), w.text.size()) == 0) {
            negate_prefix = true;
            ++*prefixes;
        }
        for (const auto &c : n->children) {
            if (c->tok.type != TOK_KEYWORD || !eligible(c.get(), no) || c->tok.text == w.text ||
                c->tok.text.compare(0, w.text.size(), w.text) != 0)
                continue;
            prefix = c.get();
            ++*prefixes;
        }
        if (*prefixes != 1) return false;
        *matched = true;
        if (negate_prefix) return walk(n, i + 1, true);
        return step(prefix, i + 1, no, prefix->tok.text, prefix->tok.text);
    }

    std::vector<word> words_;
    cli_error err_;
};

class match_walker : public walker {
  public:
    using walker::walker;
    cli_match result;

  protected:
    bool visit(const node *n, bool no) override {
        int d = complete_def(n, no);
        if (d < 0) {
            fail(static_cast<int>(line_.size()), "% Incomplete command.");
            return false;
        }
        result.def = d;
        result.no = no;
        result.args = args_;
        return true;
    }
};

class reach_walker : public walker {
  public:
    using walker::walker;
    std::vector<std::pair<const node *, bool>> reached;

  protected:
    bool visit(const node *n, bool no) override {
        for (const auto &r : reached)
            if (r.first == n && r.second == no) return false;
        reached.emplace_back(n, no);
        return false;
    }
};

struct listing_entry {
    int order;  // keywords, numbers, strings, rest of line, then <cr>
    std::string name;
    std::string help;
};

// The words before the last one, the last (possibly empty) partial word and its offset.
struct partial_line {
    std::string line;
    std::vector<word> words;
    std::string partial;
    int partial_off;
};

partial_line split_partial(const char *text) {
    partial_line p;
    p.line = one_line(text);
    p.words = split_words(p.line, p.line.size());
    p.partial_off = static_cast<int>(p.line.size());
    if (!p.words.empty() && !p.line.empty() && p.line.back() != ' ' && p.line.back() != '\t') {
        p.partial = p.words.back().text;
        p.partial_off = p.words.back().off;
        p.words.pop_back();
    }
    return p;
}

// Everything that may stand in place of the partial word after the given nodes.
std::vector<listing_entry> next_tokens(const std::vector<std::pair<const node *, bool>> &reached,
                                       const std::string &partial) {
    std::vector<listing_entry> list;
    auto add = [&list](int order, const std::string &name, const char *help) {
        for (const auto &e : list)
            if (e.name == name) return;
        list.push_back(listing_entry{order, name, help == nullptr ? "" : help});
    };
    for (const auto &[n, no] : reached) {
        if (n->tok.type == TOK_REST) {
            add(4, "<cr>", "");
            continue;
        }
        if (n == &g_reg.root && !no && g_reg.any_no && std::strncmp(kNoKeyword, partial.c_str(), partial.size()) == 0)
            add(0, kNoKeyword, kNoHelp);
        for (const auto &c : n->children) {
            if (!eligible(c.get(), no)) continue;
            const token &t = c->tok;
            switch (t.type) {
                case TOK_KEYWORD:
                    if (t.text.compare(0, partial.size(), partial) == 0) add(0, t.text, t.help);
                    break;
                case TOK_NUMBER:
                    if (partial.empty() || all_digits(partial)) add(1, t.text, t.help);
                    break;
                case TOK_STRING:
                    add(2, t.text, t.help);
                    break;
                default:
                    add(3, t.text, t.help);
                    break;
            }
        }
        if (partial.empty() && complete_def(n, no) >= 0) add(4, "<cr>", "");
    }
    std::stable_sort(list.begin(), list.end(), [](const listing_entry &a, const listing_entry &b) {
        if (a.order != b.order) return a.order < b.order;
        return a.order == 0 && a.name < b.name;
    });
    return list;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Registration

int cli_add_command(const char *group, const struct cli_node_def *defs, int n) {
    if (defs == nullptr || n < 0) return -1;
    std::vector<std::vector<position>> parsed(static_cast<size_t>(n));
    std::vector<std::vector<std::vector<const token *>>> variants(static_cast<size_t>(n));
    // Everything is checked first, so that a bad definition registers nothing of the group.
    for (int i = 0; i < n; ++i) {
        if (!parse_definition(defs[i].syntax, defs[i].help, &parsed[i])) return -1;
        std::vector<const token *> cur;
        bool too_many = false;
        expand(parsed[i], 0, &cur, &variants[i], &too_many);
        if (too_many || variants[i].empty()) return -1;
    }
    for (int i = 0; i < n; ++i) {
        int index = static_cast<int>(g_reg.defs.size());
        g_reg.defs.push_back(def_entry{group == nullptr ? "" : group, defs[i].syntax, defs[i].handler, defs[i].flags});
        bool no_ok = (defs[i].flags & CLI_F_NO) != 0;
        if (no_ok) g_reg.any_no = true;
        for (const auto &seq : variants[i]) insert_variant(seq, index, no_ok);
    }
    return 0;
}

int cli_def_count(void) {
    return static_cast<int>(g_reg.defs.size());
}

cli_handler_t cli_def_handler(int def) {
    if (def < 0 || def >= cli_def_count()) return nullptr;
    return g_reg.defs[static_cast<size_t>(def)].handler;
}

unsigned cli_def_flags(int def) {
    if (def < 0 || def >= cli_def_count()) return 0;
    return g_reg.defs[static_cast<size_t>(def)].flags;
}

void cli_tree_reset(void) {
    g_reg.root.children.clear();
    g_reg.root.def = -1;
    g_reg.root.no_def = -1;
    g_reg.defs.clear();
    g_reg.any_no = false;
}

// ---------------------------------------------------------------------------------------------
// Matching, help and completion

int cli_match_line(const char *line, cli_match *m, cli_error *err) {
    std::string text = one_line(line);
    std::vector<word> words = split_words(text, text.size());
    *m = cli_match();
    if (words.empty()) return 0;
    match_walker w(text, std::move(words));
    if (w.run()) {
        *m = w.result;
        return 0;
    }
    if (err != nullptr) *err = w.error();
    return -1;
}

int cli_help_line(const char *line, std::string *out, int *err_offset) {
    partial_line p = split_partial(line);
    reach_walker w(p.line, p.words);
    w.run();
    if (err_offset != nullptr) *err_offset = -1;
    if (w.reached.empty()) {
        if (out != nullptr) out->append(w.error().text + "\n");
        if (err_offset != nullptr) *err_offset = w.error().offset;
        return 1;
    }
    std::vector<listing_entry> list = next_tokens(w.reached, p.partial);
    if (list.empty()) {
        if (out != nullptr) out->append("% Unknown command: '" + p.partial + "'\n");
        if (err_offset != nullptr) *err_offset = p.partial_off;
        return 1;
    }
    size_t width = 0;
    for (const auto &e : list) width = std::max(width, e.name.size());
    if (out != nullptr) {
        for (const auto &e : list) {
            std::string row = "  " + e.name;
            if (!e.help.empty()) row += std::string(width - e.name.size() + 2, ' ') + e.help;
            out->append(row + "\n");
        }
    }
    return 0;
}

void cli_complete_line(const char *line, std::vector<std::string> *candidates) {
    candidates->clear();
    partial_line p = split_partial(line);
    reach_walker w(p.line, p.words);
    w.run();
    for (const auto &e : next_tokens(w.reached, p.partial))
        if (e.order == 0) candidates->push_back(e.name);
}

// ---------------------------------------------------------------------------------------------
// Running a line

cli_scope::cli_scope(cli_cmd *cmd) : prev_(t_current) {
    t_current = cmd;
}
cli_scope::~cli_scope() {
    t_current = prev_;
}
cli_cmd *cli_current(void) {
    return t_current;
}

int cli_execute_line_ex(const char *line, std::string *out, int *err_offset) {
    if (err_offset != nullptr) *err_offset = -1;
    cli_match m;
    cli_error err;
    if (cli_match_line(line, &m, &err) != 0) {
        if (out != nullptr) out->append(err.text + "\n");
        if (err_offset != nullptr) *err_offset = err.offset;
        return 1;
    }
    cli_handler_t handler = cli_def_handler(m.def);
    if (handler == nullptr) return 0;
    cli_cmd cmd;
    cmd.def = m.def;
    cmd.no = m.no;
    cmd.args = std::move(m.args);
    cmd.out = out;
    {
        cli_scope scope(&cmd);
        handler(&cmd);
    }
    return cmd.failed ? 1 : 0;
}

int cli_execute_line(const char *line, std::string *out) {
    return cli_execute_line_ex(line, out, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Inside a handler

bool cli_is_no(const struct cli_cmd *cmd) {
    return cmd != nullptr && cmd->no;
}

bool cli_is_config(const struct cli_cmd *cmd) {
    return cmd != nullptr && cmd->config;
}

const char *cli_arg(const struct cli_cmd *cmd, const char *token_text) {
    if (cmd == nullptr || token_text == nullptr) return nullptr;
    for (const auto &a : cmd->args)
        if (a.first == token_text) return a.second.c_str();
    return nullptr;
}

long cli_arg_int(const struct cli_cmd *cmd, const char *token_text, long fallback) {
    const char *v = cli_arg(cmd, token_text);
    if (v == nullptr || *v == '\0') return fallback;
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(v, &end, 10);
    if (errno != 0 || end == v || *end != '\0') return fallback;
    return n;
}

int cli_vprintf(const char *fmt, va_list ap) {
    cli_cmd *cmd = t_current;
    char small[512];
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0) return n;
    // Output outside a command, or while only configuration lines are wanted, goes nowhere.
    if (cmd == nullptr || cmd->out == nullptr || cmd->config) return n;
    if (static_cast<size_t>(n) < sizeof small) {
        cmd->out->append(small, static_cast<size_t>(n));
    } else {
        std::string big(static_cast<size_t>(n) + 1, '\0');
        std::vsnprintf(big.data(), big.size(), fmt, ap);
        big.resize(static_cast<size_t>(n));
        cmd->out->append(big);
    }
    return n;
}

int cli_printf(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = cli_vprintf(fmt, ap);
    va_end(ap);
    return n;
}

// The whole output of a command is sent when the handler returns.
int cli_flush(void) {
    return 0;
}

void cli_client_execmd_fail(struct cli_cmd *cmd) {
    if (cmd == nullptr) cmd = t_current;
    if (cmd != nullptr) cmd->failed = true;
}
