// A small JSON reader (enough for the reports, strict about the grammar,
// with a nesting limit so that no input can exhaust the stack) and the
// comparison of two reports.
#include "reportdiff.h"

#include <errno.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

namespace zorv {
namespace debugtools {
namespace {

struct Json {
  enum Kind { kNull, kBool, kInteger, kReal, kString, kArray, kObject };
  Kind kind = kNull;
  long long integer = 0;
  std::string text;
  std::vector<Json> items;
  std::vector<std::pair<std::string, Json> > members;

  const Json* find(const char* key) const {
    for (const auto& m : members) {
      if (m.first == key) return &m.second;
    }
    return nullptr;
  }
};

class Reader {
 public:
  explicit Reader(const std::string& text)
      : begin_(text.data()), p_(text.data()), end_(text.data() + text.size()) {}

  bool read(Json* value, std::string* error) {
    if (!parse(value, 0) || (space(), p_ != end_)) {
      if (error_.empty()) error_ = "unexpected text";
      *error = error_ + " at byte " + std::to_string(p_ - begin_);
      return false;
    }
    return true;
  }

 private:
  static constexpr int kMaxDepth = 64;

  bool fail(const char* what) {
    if (error_.empty()) error_ = what;
    return false;
  }

  void space() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
  }

  bool literal(const char* word) {
    for (; *word != '\0'; ++word, ++p_) {
      if (p_ == end_ || *p_ != *word) return fail("unknown word");
    }
    return true;
  }

  bool parse(Json* v, int depth) {
    if (depth > kMaxDepth) return fail("nested too deeply");
    space();
    if (p_ == end_) return fail("unexpected end");
    switch (*p_) {
      case '{': return object(v, depth);
      case '[': return array(v, depth);
      case '"': v->kind = Json::kString; return string(&v->text);
      case 't': v->kind = Json::kBool; return literal("true");
      case 'f': v->kind = Json::kBool; return literal("false");
      case 'n': v->kind = Json::kNull; return literal("null");
      default: return number(v);
    }
  }

  bool object(Json* v, int depth) {
    v->kind = Json::kObject;
    ++p_;
    space();
    if (p_ != end_ && *p_ == '}') return ++p_, true;
    for (;;) {
      space();
      std::pair<std::string, Json> member;
      if (p_ == end_ || *p_ != '"') return fail("expected a member name");
      if (!string(&member.first)) return false;
      space();
      if (p_ == end_ || *p_ != ':') return fail("expected ':'");
      ++p_;
      if (!parse(&member.second, depth + 1)) return false;
      v->members.push_back(std::move(member));
      space();
      if (p_ != end_ && *p_ == ',') { ++p_; continue; }
      if (p_ != end_ && *p_ == '}') return ++p_, true;
      return fail("expected ',' or '}'");
    }
  }

  bool array(Json* v, int depth) {
    v->kind = Json::kArray;
    ++p_;
    space();
    if (p_ != end_ && *p_ == ']') return ++p_, true;
    for (;;) {
      v->items.emplace_back();
      if (!parse(&v->items.back(), depth + 1)) return false;
      space();
      if (p_ != end_ && *p_ == ',') { ++p_; continue; }
      if (p_ != end_ && *p_ == ']') return ++p_, true;
      return fail("expected ',' or ']'");
    }
  }

  bool hex4(unsigned int* code) {
    *code = 0;
    for (int i = 0; i < 4; ++i, ++p_) {
      if (p_ == end_) return fail("unexpected end");
      const char c = *p_;
      const int digit = c >= '0' && c <= '9' ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
      if (digit < 0) return fail("bad \\u escape");
      *code = *code * 16 + static_cast<unsigned int>(digit);
    }
    return true;
  }

  static void putUtf8(unsigned int c, std::string* out) {
    if (c < 0x80) {
      out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out->push_back(static_cast<char>(0xC0 | (c >> 6)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | (c >> 12)));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | (c >> 18)));
      out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }

  bool string(std::string* out) {
    ++p_;  // the opening quote
    for (;;) {
      if (p_ == end_) return fail("unterminated string");
      const unsigned char c = static_cast<unsigned char>(*p_++);
      if (c == '"') return true;
      if (c < 0x20) return fail("control character in a string");
      if (c != '\\') {
        out->push_back(static_cast<char>(c));
        continue;
      }
      if (p_ == end_) return fail("unterminated string");
      const char e = *p_++;
      switch (e) {
        case '"': case '\\': case '/': out->push_back(e); break;
        case 'b': out->push_back('\b'); break;
        case 'f': out->push_back('\f'); break;
        case 'n': out->push_back('\n'); break;
        case 'r': out->push_back('\r'); break;
        case 't': out->push_back('\t'); break;
        case 'u': {
          unsigned int code;
          if (!hex4(&code)) return false;
          if (code >= 0xD800 && code < 0xDC00 && end_ - p_ >= 6 && p_[0] == '\\' && p_[1] == 'u') {
            const char* back = p_;
            p_ += 2;
            unsigned int low;
            if (!hex4(&low)) return false;
            if (low >= 0xDC00 && low < 0xE000) {
              code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            } else {
              p_ = back;
            }
          }
          putUtf8(code, out);
          break;
        }
        default: return fail("bad escape");
      }
    }
  }

  bool number(Json* v) {
    const char* begin = p_;
    if (p_ != end_ && *p_ == '-') ++p_;
    const char* digits = p_;
    while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    if (p_ == digits) return fail("unexpected character");
    if (*digits == '0' && p_ - digits > 1) return fail("leading zero");
    bool integral = true;
    if (p_ != end_ && *p_ == '.') {
      integral = false;
      const char* f = ++p_;
      while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
      if (p_ == f) return fail("bad number");
    }
    if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
      integral = false;
      ++p_;
      if (p_ != end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      const char* x = p_;
      while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
      if (p_ == x) return fail("bad number");
    }
    v->kind = integral ? Json::kInteger : Json::kReal;
    if (integral) {
      const std::string text(begin, p_);
      errno = 0;
      v->integer = strtoll(text.c_str(), nullptr, 10);
      if (errno == ERANGE) return fail("number out of range");
    }
    return true;
  }

  const char* begin_;
  const char* p_;
  const char* end_;
  std::string error_;
};

bool Integer(const Json* v, long long* out) {
  if (v == nullptr || v->kind != Json::kInteger) return false;
  *out = v->integer;
  return true;
}

bool Text(const Json* v, std::string* out) {
  if (v == nullptr || v->kind != Json::kString) return false;
  *out = v->text;
  return true;
}

bool Figures(const Json& root, ReportFigures* f) {
  const Json* objects = root.find("objects");
  const Json* groups = objects != nullptr ? objects->find("groups") : nullptr;
  const Json* blocks = root.find("blocks");
  const Json* timing = root.find("timing");
  if (!Integer(root.find("version"), &f->version) || f->version < 1 || groups == nullptr ||
      groups->kind != Json::kArray || blocks == nullptr ||
      !Integer(blocks->find("live"), &f->blocks) || !Integer(blocks->find("bytes"), &f->bytes) ||
      !Integer(root.find("handles"), &f->handles) || timing == nullptr ||
      timing->kind != Json::kArray) {
    return false;
  }
  for (const Json& g : groups->items) {
    std::string name;
    long long count;
    if (!Text(g.find("name"), &name) || !Integer(g.find("count"), &count)) return false;
    f->objects[name] += count;
  }
  for (const Json& t : timing->items) {
    std::string category;
    std::string operation;
    TimingFigures figures;
    if (!Text(t.find("category"), &category) || !Text(t.find("operation"), &operation) ||
        !Integer(t.find("count"), &figures.count) ||
        !Integer(t.find("total_ns"), &figures.totalNs) ||
        !Integer(t.find("max_ns"), &figures.maxNs) ||
        !Integer(t.find("p50_ns"), &figures.p50Ns) || !Integer(t.find("p99_ns"), &figures.p99Ns)) {
      return false;
    }
    f->timings[category + "/" + operation] = figures;
  }
  const Json* bySize = blocks->find("by_size");
  if (bySize == nullptr || bySize->kind != Json::kArray) return false;
  for (const Json& c : bySize->items) {
    long long ceiling;
    long long live;
    if (!Integer(c.find("max"), &ceiling) || !Integer(c.find("live"), &live) || ceiling < 0) {
      return false;
    }
    f->bySize[static_cast<unsigned long long>(ceiling)] = live;
  }
  return true;
}

// A name as it can be printed on a terminal: bytes below 0x20 and 0x7F as
// \xNN.
std::string Printable(const std::string& name) {
  std::string out;
  for (const char c : name) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) {
      static const char kHex[] = "0123456789abcdef";
      out += "\\x";
      out.push_back(kHex[u >> 4]);
      out.push_back(kHex[u & 15]);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

struct Change {
  std::string what;
  long long before;
  long long after;
};

void Compare(const std::map<std::string, long long>& older,
             const std::map<std::string, long long>& newer, const char* kind,
             std::vector<Change>* changes) {
  std::map<std::string, std::pair<long long, long long> > both;
  for (const auto& o : older) both[o.first].first = o.second;
  for (const auto& n : newer) both[n.first].second = n.second;
  for (const auto& b : both) {
    changes->push_back(Change{std::string(kind) + " " + Printable(b.first), b.second.first,
                              b.second.second});
  }
}

}  // namespace

bool ParseReport(const std::string& text, ReportFigures* figures, std::string* error) {
  Json root;
  Reader reader(text);
  if (!reader.read(&root, error)) return false;
  *figures = ReportFigures();
  if (root.kind != Json::kObject || !Figures(root, figures)) {
    *error = "not a debug report (a member is missing or has the wrong type)";
    return false;
  }
  return true;
}

bool DiffReports(const ReportFigures& older, const ReportFigures& newer, std::string* out) {
  std::vector<Change> changes;
  Compare(older.objects, newer.objects, "objects", &changes);
  changes.push_back(Change{"blocks", older.blocks, newer.blocks});
  changes.push_back(Change{"bytes", older.bytes, newer.bytes});
  changes.push_back(Change{"handles", older.handles, newer.handles});
  std::map<std::string, long long> counts[2];
  for (const auto& t : older.timings) counts[0][t.first] = t.second.count;
  for (const auto& t : newer.timings) counts[1][t.first] = t.second.count;
  Compare(counts[0], counts[1], "timing count", &changes);
  std::stable_sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) {
    return a.after - a.before > b.after - b.before;
  });
  std::ostringstream text;
  bool grew = false;
  bool shrank = false;
  for (const Change& c : changes) {
    if (c.after > c.before && !grew) text << "grew:\n";
    if (c.after > c.before) grew = true;
  }
  for (const Change& c : changes) {
    if (c.after > c.before) {
      text << "  +" << (c.after - c.before) << " " << c.what << " (" << c.before << " -> "
           << c.after << ")\n";
    }
  }
  for (auto c = changes.rbegin(); c != changes.rend(); ++c) {
    if (c->after >= c->before) break;
    if (!shrank) text << "shrank:\n";
    shrank = true;
    text << "  " << (c->after - c->before) << " " << c->what << " (" << c->before << " -> "
         << c->after << ")\n";
  }
  if (!grew && !shrank) text << "no change\n";
  *out += text.str();
  return grew;
}

int RunDiff(int argc, const char* const* argv, std::string* out, std::string* err) {
  if (argc != 3) {
    *err += "usage: zorv-debug-diff OLD.json NEW.json\n";
    return 2;
  }
  ReportFigures figures[2];
  for (int i = 0; i < 2; ++i) {
    std::ifstream file(argv[i + 1], std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    std::string error;
    if (!file) {
      error = "cannot read the file";
    } else if (ParseReport(content.str(), &figures[i], &error)) {
      continue;
    }
    *err += std::string("zorv-debug-diff: ") + argv[i + 1] + ": " + error + "\n";
    return 2;
  }
  return DiffReports(figures[0], figures[1], out) ? 1 : 0;
}

}  // namespace debugtools
}  // namespace zorv
