#include "tree.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace vq_tl::twinlens {

const Node* Node::find(const std::string& key) const {
    for (const auto& [name, value] : fields) {
        if (name == key) return &value;
    }
    return nullptr;
}

bool Node::numbers(std::vector<double>* out) const {
    out->clear();
    if (kind == kNumber) {
        out->push_back(number);
        return true;
    }
    if (kind != kList) return false;
    for (const Node& item : items) {
        if (item.kind != kNumber) return false;
        out->push_back(item.number);
    }
    return true;
}

namespace {

// Deep enough for any calibration; keeps hostile input from exhausting the
// stack.
constexpr int kMaxDepth = 64;

std::string at(int line, const std::string& what) { return "line " + std::to_string(line) + ": " + what; }

// A decimal number as JSON, YAML and OpenCV spell it ("1.", "-2.5e-03",
// ".5"), or YAML's .nan, .inf and -.inf. Hexadecimal and bare "nan" or "inf"
// stay strings.
bool toNumber(const std::string& s, double* value) {
    if (s == ".nan" || s == ".NaN" || s == ".NAN") return *value = std::strtod("nan", nullptr), true;
    for (const char* inf : {".inf", ".Inf", ".INF", "+.inf", "+.Inf", "-.inf", "-.Inf"}) {
        if (s == inf) return *value = s[0] == '-' ? -HUGE_VAL : HUGE_VAL, true;
    }
    size_t i = 0;
    if (i < s.size() && (s[i] == '-' || s[i] == '+')) ++i;
    size_t digits = 0;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++digits;
    }
    if (digits == 0) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        ++i;
        if (i < s.size() && (s[i] == '-' || s[i] == '+')) ++i;
        size_t exponent = 0;
        while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++exponent;
        if (exponent == 0) return false;
    }
    if (i != s.size()) return false;
    *value = std::strtod(s.c_str(), nullptr);
    return true;
}

void appendUtf8(uint32_t c, std::string* out) {
    if (c < 0x80) {
        *out += static_cast<char>(c);
    } else if (c < 0x800) {
        *out += static_cast<char>(0xC0 | (c >> 6));
        *out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        *out += static_cast<char>(0xE0 | (c >> 12));
        *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        *out += static_cast<char>(0xF0 | (c >> 18));
        *out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// A scalar of YAML or XML text: a number, true or false, null, or a string.
Node scalar(const std::string& s, int line, bool quoted) {
    Node n;
    n.line = line;
    n.text = s;
    if (quoted) {
        n.kind = Node::kString;
    } else if (toNumber(s, &n.number)) {
        n.kind = Node::kNumber;
    } else if (s == "true" || s == "false") {
        n.kind = Node::kBool, n.number = s == "true";
    } else if (s == "null" || s == "~" || s.empty()) {
        n.kind = Node::kNull;
    } else {
        n.kind = Node::kString;
    }
    return n;
}

bool addField(Node* map, std::string key, Node value, std::string* error) {
    if (map->find(key) != nullptr) return *error = at(value.line, "\"" + key + "\" given twice"), false;
    map->fields.emplace_back(std::move(key), std::move(value));
    return true;
}

// ---- JSON ----

struct JsonReader {
    const std::string& s;
    size_t i = 0;
    int line = 1;
    std::string* error;

    bool fail(const std::string& what) { return *error = at(line, what), false; }
    void skipSpace() {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r'))
            line += s[i++] == '\n';
    }
    bool hex4(uint32_t* c) {
        if (i + 4 > s.size()) return false;
        *c = 0;
        for (int k = 0; k < 4; ++k) {
            const char h = s[i++];
            if (!std::isxdigit(static_cast<unsigned char>(h))) return false;
            *c = *c * 16 + static_cast<uint32_t>(
                               std::isdigit(static_cast<unsigned char>(h)) ? h - '0' : (h | 0x20) - 'a' + 10);
        }
        return true;
    }
    bool string(std::string* out) {
        ++i;  // the opening quote
        while (i < s.size() && s[i] != '"') {
            const unsigned char c = static_cast<unsigned char>(s[i++]);
            if (c < 0x20) return fail("control character in a string");
            if (c != '\\') {
                *out += static_cast<char>(c);
                continue;
            }
            if (i >= s.size()) break;
            const char e = s[i++];
            switch (e) {
                case '"':
                case '\\':
                case '/': *out += e; break;
                case 'b': *out += '\b'; break;
                case 'f': *out += '\f'; break;
                case 'n': *out += '\n'; break;
                case 'r': *out += '\r'; break;
                case 't': *out += '\t'; break;
                case 'u': {
                    uint32_t c1;
                    if (!hex4(&c1)) return fail("bad \\u escape");
                    // A high surrogate takes the low one that follows.
                    if (c1 >= 0xD800 && c1 < 0xDC00 && i + 1 < s.size() && s[i] == '\\' && s[i + 1] == 'u') {
                        i += 2;
                        uint32_t c2;
                        if (!hex4(&c2) || c2 < 0xDC00 || c2 >= 0xE000) return fail("bad surrogate pair");
                        c1 = 0x10000 + ((c1 - 0xD800) << 10) + (c2 - 0xDC00);
                    }
                    appendUtf8(c1, out);
                    break;
                }
                default: return fail(std::string("bad escape \\") + e);
            }
        }
        if (i >= s.size()) return fail("string not closed");
        ++i;
        return true;
    }
    bool value(Node* out, int depth) {
        if (depth > kMaxDepth) return fail("nested too deeply");
        skipSpace();
        out->line = line;
        if (i >= s.size()) return fail("a value is missing");
        const char c = s[i];
        if (c == '{' || c == '[') {
            const bool map = c == '{';
            out->kind = map ? Node::kMap : Node::kList;
            ++i;
            skipSpace();
            if (i < s.size() && s[i] == (map ? '}' : ']')) return ++i, true;
            for (;;) {
                skipSpace();
                std::string key;
                if (map) {
                    if (i >= s.size() || s[i] != '"') return fail("a key in quotes expected");
                    if (!string(&key)) return false;
                    skipSpace();
                    if (i >= s.size() || s[i] != ':') return fail("':' expected after \"" + key + "\"");
                    ++i;
                }
                Node item;
                if (!value(&item, depth + 1)) return false;
                if (map && !addField(out, key, std::move(item), error)) return false;
                if (!map) out->items.push_back(std::move(item));
                skipSpace();
                if (i < s.size() && s[i] == ',') {
                    ++i;
                    continue;
                }
                if (i < s.size() && s[i] == (map ? '}' : ']')) return ++i, true;
                return fail(map ? "',' or '}' expected" : "',' or ']' expected");
            }
        }
        if (c == '"') {
            out->kind = Node::kString;
            return string(&out->text);
        }
        size_t end = i;
        while (end < s.size() &&
               (std::isalnum(static_cast<unsigned char>(s[end])) || std::strchr("+-.", s[end])))
            ++end;
        const std::string word = s.substr(i, end - i);
        i = end;
        if (word == "true" || word == "false")
            return out->kind = Node::kBool, out->number = word == "true", true;
        if (word == "null") return out->kind = Node::kNull, true;
        // JSON's numbers: no leading '+', no leading '.', no YAML spellings.
        if (!word.empty() && word[0] != '+' && word[0] != '.' && toNumber(word, &out->number)) {
            out->kind = Node::kNumber, out->text = word;
            return true;
        }
        return fail(word.empty() ? std::string("unexpected '") + c + "'" : "unexpected \"" + word + "\"");
    }
};

// ---- YAML as OpenCV writes it ----

struct YamlLine {
    int indent;
    std::string text;  // without indentation and comment
    int number;
};

struct YamlReader {
    std::vector<YamlLine> lines;
    size_t next = 0;
    std::string* error;

    bool fail(int line, const std::string& what) { return *error = at(line, what), false; }

    // Lines without comments, blank lines, the directive and the document marker.
    bool split(const std::string& text) {
        size_t pos = 0;
        int number = 0;
        while (pos <= text.size()) {
            size_t end = text.find('\n', pos);
            if (end == std::string::npos) end = text.size();
            std::string line = text.substr(pos, end - pos);
            pos = end + 1;
            ++number;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            // A comment starts at '#' after a space or at the start, outside quotes.
            char quote = 0;
            for (size_t k = 0; k < line.size(); ++k) {
                const char c = line[k];
                if (quote != 0) {
                    if (c == '\\' && quote == '"')
                        ++k;
                    else if (c == quote)
                        quote = 0;
                } else if (c == '"' || c == '\'') {
                    quote = c;
                } else if (c == '#' && (k == 0 || line[k - 1] == ' ' || line[k - 1] == '\t')) {
                    line.resize(k);
                    break;
                }
            }
            while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.pop_back();
            size_t indent = 0;
            while (indent < line.size() && line[indent] == ' ') ++indent;
            if (indent == line.size()) continue;
            if (line[indent] == '\t') return fail(number, "a tab in the indentation");
            const std::string content = line.substr(indent);
            if (indent == 0 && content[0] == '%') continue;  // %YAML:1.0
            if (indent == 0 && (content == "---" || content.rfind("--- ", 0) == 0)) {
                if (!lines.empty()) return fail(number, "a second document");
                continue;
            }
            if (indent == 0 && content == "...") break;
            if (content[0] == '&' || content[0] == '*' || content[0] == '|' || content[0] == '>')
                return fail(number, "anchors, aliases and block scalars are not read");
            lines.push_back({static_cast<int>(indent), content, number});
        }
        return true;
    }

    // A flow collection that starts at text[*k], possibly continued on the
    // following lines; *k ends past its closing bracket.
    bool flow(std::string* text, size_t* k, int* line, Node* out, int depth) {
        if (depth > kMaxDepth) return fail(*line, "nested too deeply");
        auto more = [&]() {
            // The collection goes on at the next line.
            if (next >= lines.size()) return false;
            *text += ' ';
            *text += lines[next].text;
            *line = lines[next++].number;
            return true;
        };
        auto skip = [&]() {
            for (;;) {
                while (*k < text->size() && (*text)[*k] == ' ') ++*k;
                if (*k < text->size() || !more()) return;
            }
        };
        const bool map = (*text)[*k] == '{';
        out->kind = map ? Node::kMap : Node::kList;
        out->line = *line;
        const char close = map ? '}' : ']';
        ++*k;
        skip();
        if (*k < text->size() && (*text)[*k] == close) return ++*k, true;
        for (;;) {
            skip();
            if (*k >= text->size()) return fail(*line, std::string("'") + close + "' missing");
            std::string key;
            if (map) {
                Node name;
                if (!item(text, k, line, &name, ":", depth)) return false;
                key = name.text;
                if (*k >= text->size() || (*text)[*k] != ':') return fail(*line, "':' expected after " + key);
                ++*k;
                skip();
            }
            Node value;
            const char c = *k < text->size() ? (*text)[*k] : 0;
            if (c == '[' || c == '{') {
                if (!flow(text, k, line, &value, depth + 1)) return false;
            } else if (!item(text, k, line, &value, map ? ",}" : ",]", depth)) {
                return false;
            }
            if (map && !addField(out, key, std::move(value), error)) return false;
            if (!map) out->items.push_back(std::move(value));
            skip();
            if (*k < text->size() && (*text)[*k] == ',') {
                ++*k;
                continue;
            }
            if (*k < text->size() && (*text)[*k] == close) return ++*k, true;
            return fail(*line, std::string("',' or '") + close + "' expected");
        }
    }

    // A scalar inside a flow collection, up to one of `stops`.
    bool item(std::string* text, size_t* k, int* line, Node* out, const char* stops, int) {
        const std::string& s = *text;
        if (*k < s.size() && (s[*k] == '"' || s[*k] == '\'')) {
            std::string value;
            if (!quoted(s, k, *line, &value)) return false;
            *out = scalar(value, *line, true);
            return true;
        }
        size_t end = *k;
        while (end < s.size() && std::strchr(stops, s[end]) == nullptr) ++end;
        std::string value = s.substr(*k, end - *k);
        while (!value.empty() && value.back() == ' ') value.pop_back();
        *k = end;
        *out = scalar(value, *line, false);
        return true;
    }

    bool quoted(const std::string& s, size_t* k, int line, std::string* out) {
        const char q = s[(*k)++];
        while (*k < s.size()) {
            const char c = s[(*k)++];
            if (c == q) {
                if (q == '\'' && *k < s.size() && s[*k] == '\'') {
                    *out += '\'', ++*k;
                    continue;
                }
                return true;
            }
            if (c == '\\' && q == '"' && *k < s.size()) {
                const char e = s[(*k)++];
                *out += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                continue;
            }
            *out += c;
        }
        return fail(line, "quotes not closed");
    }

    // The value after "key:" or "- " on the current line (rest), or the block
    // below it.
    bool valueOf(std::string rest, int indent, int line, Node* out, int depth) {
        // Tags such as !!opencv-matrix say what OpenCV stored; the content says it too.
        if (!rest.empty() && rest[0] == '!') {
            const size_t space = rest.find(' ');
            rest = space == std::string::npos ? std::string() : rest.substr(space + 1);
            while (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
        }
        if (!rest.empty() && (rest[0] == '&' || rest[0] == '*' || rest[0] == '|' || rest[0] == '>'))
            return fail(line, "anchors, aliases and block scalars are not read");
        if (rest.empty()) {
            // A nested block: deeper lines, or a sequence at the key's own indentation.
            if (next < lines.size() && (lines[next].indent > indent ||
                                        (lines[next].indent == indent && lines[next].text[0] == '-' &&
                                         (lines[next].text.size() == 1 || lines[next].text[1] == ' '))))
                return block(lines[next].indent, out, depth + 1);
            *out = scalar("", line, false);
            return true;
        }
        if (rest[0] == '[' || rest[0] == '{') {
            size_t k = 0;
            int last = line;
            if (!flow(&rest, &k, &last, out, depth + 1)) return false;
            while (k < rest.size() && rest[k] == ' ') ++k;
            if (k != rest.size()) return fail(last, "text after the closing bracket");
            out->line = line;
            return true;
        }
        if (rest[0] == '"' || rest[0] == '\'') {
            size_t k = 0;
            std::string value;
            if (!quoted(rest, &k, line, &value)) return false;
            if (k != rest.size()) return fail(line, "text after the closing quote");
            *out = scalar(value, line, true);
            return true;
        }
        *out = scalar(rest, line, false);
        return true;
    }

    // A block mapping or sequence whose lines stand at `indent`.
    bool block(int indent, Node* out, int depth) {
        if (depth > kMaxDepth) return fail(lines[next].number, "nested too deeply");
        const bool sequence =
            lines[next].text[0] == '-' && (lines[next].text.size() == 1 || lines[next].text[1] == ' ');
        out->kind = sequence ? Node::kList : Node::kMap;
        out->line = lines[next].number;
        while (next < lines.size() && lines[next].indent >= indent) {
            YamlLine& l = lines[next];
            if (l.indent > indent) return fail(l.number, "indentation does not match the lines above");
            const bool dash = l.text[0] == '-' && (l.text.size() == 1 || l.text[1] == ' ');
            // A sequence may stand at its key's indentation: a key ends it.
            if (dash != sequence && sequence) break;
            if (dash != sequence) return fail(l.number, "a key expected, not a sequence item");
            if (sequence) {
                size_t k = 1;
                while (k < l.text.size() && l.text[k] == ' ') ++k;
                std::string rest = l.text.substr(k);
                Node item;
                item.line = l.number;
                // "- key: value" opens a mapping at the column of its key.
                const size_t colon = rest.find(": ");
                if (!rest.empty() && rest[0] != '[' && rest[0] != '{' && rest[0] != '"' && rest[0] != '\'' &&
                    (colon != std::string::npos || (!rest.empty() && rest.back() == ':'))) {
                    l.indent += static_cast<int>(k);
                    l.text = rest;
                    if (!block(l.indent, &item, depth + 1)) return false;
                } else {
                    const int number = l.number;
                    ++next;
                    if (!valueOf(rest, indent, number, &item, depth)) return false;
                }
                out->items.push_back(std::move(item));
                continue;
            }
            std::string key;
            size_t k = 0;
            if (l.text[0] == '"' || l.text[0] == '\'') {
                if (!quoted(l.text, &k, l.number, &key)) return false;
                if (k >= l.text.size() || l.text[k] != ':')
                    return fail(l.number, "':' expected after " + key);
            } else {
                k = l.text.find(':');
                while (k != std::string::npos && k + 1 < l.text.size() && l.text[k + 1] != ' ')
                    k = l.text.find(':', k + 1);
                if (k == std::string::npos) return fail(l.number, "\"key: value\" expected");
                key = l.text.substr(0, k);
                while (!key.empty() && key.back() == ' ') key.pop_back();
            }
            std::string rest = l.text.substr(k + 1);
            while (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
            const int number = l.number;
            ++next;
            Node value;
            if (!valueOf(rest, indent, number, &value, depth)) return false;
            if (!addField(out, key, std::move(value), error)) return false;
        }
        return true;
    }
};

// ---- XML as OpenCV writes it ----

struct XmlReader {
    const std::string& s;
    size_t i = 0;
    int line = 1;
    std::string* error;

    bool fail(const std::string& what) { return *error = at(line, what), false; }
    void advance(size_t to) {
        for (; i < to && i < s.size(); ++i) line += s[i] == '\n';
    }
    void skipSpace() {
        while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) advance(i + 1);
    }
    // Declarations, processing instructions and comments.
    bool skipMarkup() {
        for (;;) {
            skipSpace();
            if (s.compare(i, 4, "<!--") == 0) {
                const size_t end = s.find("-->", i + 4);
                if (end == std::string::npos) return fail("comment not closed");
                advance(end + 3);
            } else if (s.compare(i, 2, "<?") == 0) {
                const size_t end = s.find("?>", i + 2);
                if (end == std::string::npos) return fail("declaration not closed");
                advance(end + 2);
            } else if (s.compare(i, 2, "<!") == 0) {
                return fail("document type declarations are not read");
            } else {
                return true;
            }
        }
    }
    bool decode(const std::string& raw, std::string* out) {
        for (size_t k = 0; k < raw.size(); ++k) {
            if (raw[k] != '&') {
                *out += raw[k];
                continue;
            }
            const size_t end = raw.find(';', k);
            if (end == std::string::npos) return fail("'&' without ';'");
            const std::string name = raw.substr(k + 1, end - k - 1);
            if (name == "lt")
                *out += '<';
            else if (name == "gt")
                *out += '>';
            else if (name == "amp")
                *out += '&';
            else if (name == "quot")
                *out += '"';
            else if (name == "apos")
                *out += '\'';
            else if (name.size() > 1 && name[0] == '#') {
                const bool hex = name[1] == 'x';
                char* stop = nullptr;
                const unsigned long c = std::strtoul(name.c_str() + (hex ? 2 : 1), &stop, hex ? 16 : 10);
                if (*stop != '\0' || c == 0 || c > 0x10FFFF)
                    return fail("bad character reference &" + name + ";");
                appendUtf8(static_cast<uint32_t>(c), out);
            } else {
                return fail("unknown entity &" + name + ";");
            }
            k = end;
        }
        return true;
    }
    // Text content: numbers separated by blanks make a number or a list of
    // them; anything else is one string (OpenCV quotes strings with blanks).
    bool text(const std::string& raw, int at, Node* out) {
        std::string t;
        if (!decode(raw, &t)) return false;
        std::vector<std::string> words;
        size_t k = 0;
        while (k < t.size()) {
            while (k < t.size() && std::isspace(static_cast<unsigned char>(t[k]))) ++k;
            const size_t start = k;
            while (k < t.size() && !std::isspace(static_cast<unsigned char>(t[k]))) ++k;
            if (k > start) words.push_back(t.substr(start, k - start));
        }
        bool allNumbers = !words.empty();
        double v;
        for (const std::string& w : words) allNumbers = allNumbers && toNumber(w, &v);
        if (allNumbers && words.size() > 1) {
            out->kind = Node::kList, out->line = at;
            for (const std::string& w : words) out->items.push_back(scalar(w, at, false));
            return true;
        }
        std::string whole = t.substr(
            t.find_first_not_of(" \t\r\n") == std::string::npos ? t.size() : t.find_first_not_of(" \t\r\n"));
        while (!whole.empty() && std::isspace(static_cast<unsigned char>(whole.back()))) whole.pop_back();
        const bool quoted = whole.size() >= 2 && whole.front() == '"' && whole.back() == '"';
        *out = scalar(quoted ? whole.substr(1, whole.size() - 2) : whole, at, quoted);
        return true;
    }
    bool element(std::string* name, Node* out, int depth) {
        if (depth > kMaxDepth) return fail("nested too deeply");
        if (i >= s.size() || s[i] != '<') return fail("an element expected");
        const int start = line;
        size_t k = i + 1;
        while (k < s.size() && !std::isspace(static_cast<unsigned char>(s[k])) && s[k] != '>' && s[k] != '/')
            ++k;
        *name = s.substr(i + 1, k - i - 1);
        if (name->empty()) return fail("an element without a name");
        const size_t close = s.find('>', k);
        if (close == std::string::npos) return fail("<" + *name + " not closed");
        // Attributes (OpenCV's type_id) are not needed: the content tells the type.
        const bool empty = s[close - 1] == '/';
        advance(close + 1);
        out->line = start;
        if (empty) return out->kind = Node::kNull, true;
        std::string raw;
        int textLine = line;
        bool children = false;
        for (;;) {
            const size_t lt = s.find('<', i);
            if (lt == std::string::npos) return fail("</" + *name + "> missing");
            if (!children)
                raw += s.substr(i, lt - i);
            else if (s.find_first_not_of(" \t\r\n", i) < lt)
                return fail("text beside elements in <" + *name + ">");
            advance(lt);
            if (s.compare(i, 4, "<!--") == 0) {
                const size_t end = s.find("-->", i + 4);
                if (end == std::string::npos) return fail("comment not closed");
                advance(end + 3);
                continue;
            }
            if (s.compare(i, 2, "</") == 0) {
                const size_t end = s.find('>', i);
                std::string closing = end == std::string::npos ? "" : s.substr(i + 2, end - i - 2);
                while (!closing.empty() && std::isspace(static_cast<unsigned char>(closing.back())))
                    closing.pop_back();
                if (closing != *name) return fail("</" + *name + "> expected, not </" + closing + ">");
                advance(end + 1);
                break;
            }
            if (!children && raw.find_first_not_of(" \t\r\n") != std::string::npos)
                return fail("text beside elements in <" + *name + ">");
            if (!children) {
                children = true;
                out->kind = Node::kMap;
            }
            std::string childName;
            Node child;
            if (!element(&childName, &child, depth + 1)) return false;
            // OpenCV writes sequence items as elements named "_".
            if (childName == "_") {
                if (!out->fields.empty()) return fail("sequence items beside named elements");
                out->kind = Node::kList;
                out->items.push_back(std::move(child));
            } else {
                if (out->kind == Node::kList) return fail("named elements beside sequence items");
                if (!addField(out, childName, std::move(child), error)) return false;
            }
            textLine = line;
        }
        if (!children) return text(raw, textLine, out);
        return true;
    }
};

size_t firstSignificant(const std::string& text) {
    size_t k = 0;
    // A byte order mark.
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) k = 3;
    while (k < text.size() && std::isspace(static_cast<unsigned char>(text[k]))) ++k;
    return k;
}

}  // namespace

bool parseJson(const std::string& text, Node* out, std::string* error) {
    JsonReader r{text, firstSignificant(text), 1, error};
    for (size_t k = 0; k < r.i; ++k) r.line += text[k] == '\n';
    *out = Node();
    if (!r.value(out, 0)) return false;
    r.skipSpace();
    if (r.i != text.size()) return r.fail("text after the end");
    return true;
}

bool parseOpenCvYaml(const std::string& text, Node* out, std::string* error) {
    YamlReader r;
    r.error = error;
    *out = Node();
    if (!r.split(text.substr(text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0))) return false;
    if (r.lines.empty()) return out->kind = Node::kMap, true;
    if (!r.block(r.lines[0].indent, out, 0)) return false;
    if (r.next != r.lines.size())
        return r.fail(r.lines[r.next].number, "indentation does not match the lines above");
    return true;
}

bool parseOpenCvXml(const std::string& text, Node* out, std::string* error) {
    XmlReader r{text, 0, 1, error};
    *out = Node();
    r.advance(firstSignificant(text));
    if (!r.skipMarkup()) return false;
    std::string root;
    if (!r.element(&root, out, 0)) return false;
    if (out->kind == Node::kNull) out->kind = Node::kMap;
    if (!r.skipMarkup()) return false;
    if (r.i != text.size()) return r.fail("text after the root element");
    return true;
}

bool parseAny(const std::string& text, Node* out, std::string* error) {
    const size_t k = firstSignificant(text);
    if (k < text.size() && text[k] == '<') return parseOpenCvXml(text, out, error);
    if (k < text.size() && (text[k] == '{' || text[k] == '[')) return parseJson(text, out, error);
    return parseOpenCvYaml(text, out, error);
}

}  // namespace vq_tl::twinlens
