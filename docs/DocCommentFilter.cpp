// The input filter of the API reference: reads one header (the path is the only argument) and
// writes it to standard output with its plain `//` comments turned into documentation comments,
// so that the headers keep ordinary comments and still feed the reference as they stand.
//
// Output line n is input line n with text added, never a line more or less, so warnings point
// at the right places. A "block" is a run of whole-line `//` comments. The rules:
//  - a block right in front of a declaration at namespace or class scope documents it; when
//    further declarations of the same kind follow without a blank line, a comment or an
//    access specifier in between, the block documents each of them (the overloads and get/set
//    pairs that the headers describe once), repeated on one line behind each;
//  - a block right in front of a #define documents the macro;
//  - the first block of a file, when no declaration comes before it and a blank line or a
//    preprocessor line (other than #define) follows it, documents the file; a file without
//    such a block is documented empty, so that its functions, types and macros are listed;
//  - `// text` behind a member that ends in `;` or `,` (or behind an enumerator) documents it;
//  - a member declared `= delete` is documented as deleted;
//  - everything else is left alone: blocks followed by a blank line (section rules, notes on a
//    group), comments inside function bodies, macro bodies and blocks that end a scope.
// The headers use neither block comments nor raw strings, and the scan does not look for them.
#include <cstddef>
#include <fstream>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

namespace {

enum class LineKind { Blank, Comment, Define, Preprocessor, Access, Code };
enum class Scope { Namespace, Type, Enum, Body };
// Kinds of declarations that a comment in front of another kind does not describe.
enum class Member { Plain, CopyOrMove, Destructor, Deleted };

// What the scan learns about one line. Depths count open braces.
struct LineInfo {
    LineKind kind = LineKind::Blank;
    bool docScope = true; // at the line's start every open brace is a namespace or type
    int depth = 0;        // at the line's start
    // Where a declaration at depth `depth` ends on this line: a `;`, or the `}` of a function
    // body. Index of the character, or npos.
    std::size_t declarationEnd = std::string::npos;
    bool leavesScope = false;                        // a `}` takes the depth below `depth`
    std::size_t trailingComment = std::string::npos; // column of a `//` behind code
    bool trailingDocScope = false; // the scope at that comment is a type or an enum
    bool trailingInEnum = false;   // ... and it is an enum
    Member member = Member::Plain; // of a line that starts a declaration
};

bool startsWith(const std::string& s, std::size_t at, const char* prefix) {
    return s.compare(at, std::char_traits<char>::length(prefix), prefix) == 0;
}

std::size_t firstNonSpace(const std::string& s) {
    const std::size_t at = s.find_first_not_of(" \t");
    return at == std::string::npos ? s.size() : at;
}

// The kind of scope a `{` opens, from the text of the statement in front of it.
Scope scopeOf(std::string head) {
    static const std::regex access(R"(^\s*(public|private|protected)\s*:(?!:))");
    static const std::regex templ(R"(^\s*template\s*<[^{;]*>)");
    static const std::regex enumHead(R"(^\s*(typedef\s+)?enum\b)");
    static const std::regex typeHead(R"(^\s*(typedef\s+)?(class|struct|union)\b)");
    static const std::regex nsHead(R"(^\s*((inline\s+)?namespace\b|extern\s*"C"))");
    head = std::regex_replace(head, access, "");
    head = std::regex_replace(head, templ, "");
    if (std::regex_search(head, enumHead))
        return Scope::Enum;
    // A function returning a class by name ("struct X* f() {") has a parenthesis in its head.
    if (std::regex_search(head, typeHead) && head.find('(') == std::string::npos)
        return Scope::Type;
    if (std::regex_search(head, nsHead))
        return Scope::Namespace;
    return Scope::Body;
}

Member memberOf(const std::string& line) {
    static const std::regex copyOrMove(R"((^|[^\w~])(\w+)\s*\(\s*(const\s+)?\2\s*&)");
    static const std::regex assignment(R"(\boperator\s*=\s*\()");
    static const std::regex destructor(R"(~\s*\w+\s*\()");
    if (line.find("= delete") != std::string::npos)
        return Member::Deleted;
    if (std::regex_search(line, destructor))
        return Member::Destructor;
    return std::regex_search(line, copyOrMove) || std::regex_search(line, assignment)
               ? Member::CopyOrMove
               : Member::Plain;
}

bool allDocScopes(const std::vector<Scope>& stack) {
    for (Scope s : stack)
        if (s == Scope::Body)
            return false;
    return true;
}

std::vector<LineInfo> scan(const std::vector<std::string>& lines) {
    static const std::regex accessLine(R"(^\s*(public|private|protected)\s*:\s*(//.*)?$)");
    static const std::regex defineLine(R"(^\s*#\s*define\b)");
    std::vector<LineInfo> infos(lines.size());
    std::vector<Scope> stack;
    std::string head; // the statement so far, since the last `;`, `{` or `}`
    bool continuation = false;
    for (std::size_t n = 0; n < lines.size(); ++n) {
        const std::string& line = lines[n];
        LineInfo& info = infos[n];
        info.depth = static_cast<int>(stack.size());
        info.docScope = allDocScopes(stack);
        const std::size_t start = firstNonSpace(line);
        if (continuation || (start < line.size() && line[start] == '#')) {
            info.kind = !continuation && std::regex_search(line, defineLine)
                            ? LineKind::Define
                            : LineKind::Preprocessor;
            if (continuation && n > 0)
                info.kind = infos[n - 1].kind;
            continuation = !line.empty() && line.back() == '\\';
            continue;
        }
        if (start == line.size()) {
            info.kind = LineKind::Blank;
            continue;
        }
        if (startsWith(line, start, "//")) {
            info.kind = LineKind::Comment;
            continue;
        }
        info.kind = std::regex_match(line, accessLine) ? LineKind::Access : LineKind::Code;
        info.member = memberOf(line);
        // Characters outside literals and comments decide; quotes are skipped pairwise.
        for (std::size_t i = start; i < line.size(); ++i) {
            const char c = line[i];
            if (c == '"' || c == '\'') {
                std::size_t j = i + 1;
                while (j < line.size() && line[j] != c)
                    j += line[j] == '\\' ? 2 : 1;
                head.append(line, i, j + 1 - i);
                i = j;
                continue;
            }
            if (startsWith(line, i, "//")) {
                info.trailingComment = i;
                info.trailingDocScope = allDocScopes(stack);
                info.trailingInEnum = !stack.empty() && stack.back() == Scope::Enum;
                break;
            }
            if (c == '{') {
                stack.push_back(scopeOf(head));
                head.clear();
            } else if (c == '}') {
                const bool body = !stack.empty() && stack.back() == Scope::Body;
                if (!stack.empty())
                    stack.pop_back();
                const int depth = static_cast<int>(stack.size());
                if (depth < info.depth)
                    info.leavesScope = true;
                else if (depth == info.depth && body && info.declarationEnd == std::string::npos)
                    info.declarationEnd = i;
                head.clear();
            } else if (c == ';') {
                if (static_cast<int>(stack.size()) == info.depth &&
                    info.declarationEnd == std::string::npos)
                    info.declarationEnd = i;
                head.clear();
            } else {
                head += c;
            }
        }
        head += ' ';
    }
    return infos;
}

// Appends a documentation comment behind the code of a line that has none.
void appendDoc(std::string& line, const char* text) {
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t'))
        line.pop_back();
    line += " ///< ";
    line += text;
}

// Turns the whole-line `//` of lines [first, last) into `///`. Lines set out in columns (a
// glossary, a byte layout) keep their layout: a run of lines indented past the block's text is
// wrapped in <pre>, unless it is a list item with its continuation or an indented code block behind
// an empty line, which Markdown renders itself.
void documentBlock(std::vector<std::string>& lines, std::size_t first, std::size_t last) {
    const auto text = [&](std::size_t n) { return lines[n].substr(firstNonSpace(lines[n]) + 2); };
    const auto indented = [&](std::size_t n) { return startsWith(text(n), 0, "  "); };
    std::size_t n = first;
    while (n < last) {
        if (!indented(n)) {
            ++n;
            continue;
        }
        std::size_t end = n;
        bool code = n > first && text(n - 1).find_first_not_of(' ') == std::string::npos;
        while (end < last && indented(end)) {
            code = code && startsWith(text(end), 0, "     ");
            ++end;
        }
        const std::size_t at = firstNonSpace(text(n));
        const bool list = startsWith(text(n), at, "- ") || startsWith(text(n), at, "* ");
        if (!list && !code) {
            // In place of the space that the reference tool takes off the other lines, so that
            // the columns stay as they were.
            lines[n].replace(firstNonSpace(lines[n]) + 2, 1, " <pre>");
            lines[end - 1] += "</pre>";
        }
        n = end;
    }
    for (n = first; n < last; ++n)
        lines[n].insert(firstNonSpace(lines[n]) + 2, "/");
}

// The lines on which the declarations end that follow the one at line `first` and share its
// block: the run of declarations of one kind at the same depth, up to a line that is no plain
// declaration.
std::vector<std::size_t> followers(const std::vector<LineInfo>& infos, std::size_t first) {
    const LineInfo& head = infos[first];
    std::vector<std::size_t> ends;
    bool firstEnded = false;
    for (std::size_t n = first; n < infos.size(); ++n) {
        const LineInfo& info = infos[n];
        const bool continues = n > first && infos[n - 1].declarationEnd == std::string::npos;
        if (info.kind != LineKind::Code || info.depth != head.depth || info.leavesScope ||
            (!continues && info.member != head.member))
            break;
        if (info.trailingComment != std::string::npos)
            break; // documented by its own comment
        if (info.declarationEnd == std::string::npos)
            continue;
        if (firstEnded)
            ends.push_back(n);
        firstEnded = true;
    }
    return ends;
}

// The text of a block on one line, for a `///<` comment.
std::string joined(const std::vector<std::string>& lines, std::size_t first, std::size_t last) {
    std::string text;
    for (std::size_t n = first; n < last; ++n) {
        const std::size_t at = lines[n].find_first_not_of(" \t/", firstNonSpace(lines[n]));
        if (at == std::string::npos)
            continue;
        if (!text.empty())
            text += ' ';
        text.append(lines[n], at, std::string::npos);
    }
    return text;
}

void filter(std::vector<std::string>& lines) {
    const std::vector<LineInfo> infos = scan(lines);
    // Comments behind members first: the insertions below only add text in front of a line
    // or behind one without such a comment, so the columns found by the scan stay right.
    for (std::size_t n = 0; n < lines.size(); ++n) {
        const LineInfo& info = infos[n];
        if (info.kind != LineKind::Code)
            continue;
        if (info.trailingComment != std::string::npos) {
            const std::string code = lines[n].substr(0, info.trailingComment);
            const std::size_t last = code.find_last_not_of(" \t");
            const char end = last == std::string::npos ? ' ' : code[last];
            if (info.trailingDocScope && (info.trailingInEnum || end == ';' || end == ','))
                lines[n].insert(info.trailingComment + 2, "/<");
        } else if (info.member == Member::Deleted && info.docScope) {
            appendDoc(lines[n], "Deleted.");
        }
    }
    bool fileDocumented = false;
    bool declarationSeen = false;
    std::size_t n = 0;
    while (n < lines.size()) {
        if (infos[n].kind != LineKind::Comment) {
            declarationSeen = declarationSeen || infos[n].kind == LineKind::Code;
            ++n;
            continue;
        }
        std::size_t end = n;
        while (end < lines.size() && infos[end].kind == LineKind::Comment)
            ++end;
        const LineKind next = end < lines.size() ? infos[end].kind : LineKind::Blank;
        if (!declarationSeen && !fileDocumented &&
            (next == LineKind::Blank || next == LineKind::Preprocessor)) {
            documentBlock(lines, n, end);
            lines[end - 1] += " \\file";
            fileDocumented = true;
        } else if (next == LineKind::Define) {
            documentBlock(lines, n, end);
        } else if (next == LineKind::Code && infos[end].docScope &&
                   infos[end].member != Member::Deleted) {
            const std::string text = joined(lines, n, end);
            documentBlock(lines, n, end);
            for (std::size_t follower : followers(infos, end))
                appendDoc(lines[follower], text.c_str());
        }
        n = end;
    }
    if (!fileDocumented) {
        for (std::string& line : lines)
            if (line.find_first_not_of(" \t") == std::string::npos) {
                line = "/** \\file */";
                return;
            }
        if (!lines.empty())
            lines.back() += " /** \\file */";
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " header\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    if (!in) {
        std::cerr << argv[0] << ": cannot read " << argv[1] << '\n';
        return 1;
    }
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    filter(lines);
    for (const std::string& line : lines)
        std::cout << line << '\n';
    return std::cout.flush() ? 0 : 1;
}
