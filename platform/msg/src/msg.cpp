// msg.cpp - the message catalogue: the whole file is read at open into a
// map from number to text; lookups afterwards only read.
#include "msg.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>

#define MSG_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Entry {
  std::string text;
  size_t line;
};

struct Catalogue {
  std::string path;
  std::map<uint32_t, Entry> entries;
};

void put_detail(char *detail, size_t len, const std::string &text) {
  if (detail == nullptr || len == 0)
    return;
  std::snprintf(detail, len, "%s", text.c_str());
}

bool exists(const char *path) {
  struct stat st{};
  return ::stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

std::string default_path() {
  const char *env = std::getenv("HVS_MSG_CATALOGUE");
  if (env != nullptr && *env != '\0')
    return env;
  if (exists(MSG_INSTALLED_CATALOGUE))
    return MSG_INSTALLED_CATALOGUE;
  return MSG_SOURCE_CATALOGUE;
}

std::string unescape(const std::string &s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) {
      char c = s[i + 1];
      if (c == 'n' || c == 't' || c == '\\') {
        out.push_back(c == 'n' ? '\n' : c == 't' ? '\t' : '\\');
        ++i;
        continue;
      }
    }
    out.push_back(s[i]);
  }
  return out;
}

// One line into number and text; false when it is neither blank, comment
// nor "NUMBER TEXT".
enum class Line { Skip, Entry, Bad };
Line parse_line(std::string s, uint32_t &number, std::string &text) {
  while (!s.empty() && (s.back() == '\r' || s.back() == ' ' || s.back() == '\t'))
    s.pop_back();
  size_t p = s.find_first_not_of(" \t");
  if (p == std::string::npos || s[p] == '#')
    return Line::Skip;
  size_t q = p;
  uint64_t value = 0;
  while (q < s.size() && s[q] >= '0' && s[q] <= '9') {
    value = value * 10 + static_cast<uint64_t>(s[q] - '0');
    if (value > UINT32_MAX)
      return Line::Bad;
    ++q;
  }
  if (q == p || q == s.size() || (s[q] != ' ' && s[q] != '\t'))
    return Line::Bad;
  size_t t = s.find_first_not_of(" \t", q);
  if (t == std::string::npos)
    return Line::Bad;
  number = static_cast<uint32_t>(value);
  text = unescape(s.substr(t));
  return Line::Entry;
}

} // namespace

MSG_EXPORT int32_t msgopen(msgcat *cat, const char *path, char *detail,
                           size_t detail_len) {
  if (cat == nullptr)
    return MSG_ERR_ARGUMENT;
  msgclose(cat);
  try {
    auto c = std::make_unique<Catalogue>();
    c->path = path != nullptr ? path : default_path();
    std::ifstream in(c->path);
    if (!in) {
      put_detail(detail, detail_len, c->path + ": " + std::strerror(errno));
      return MSG_ERR_OPEN;
    }
    std::string line;
    for (size_t n = 1; std::getline(in, line); ++n) {
      uint32_t number = 0;
      std::string text;
      switch (parse_line(line, number, text)) {
      case Line::Skip:
        continue;
      case Line::Bad:
        put_detail(detail, detail_len,
                   c->path + ":" + std::to_string(n) + ": not a NUMBER TEXT line");
        return MSG_ERR_FORMAT;
      case Line::Entry:
        break;
      }
      auto [it, fresh] = c->entries.emplace(number, Entry{std::move(text), n});
      if (!fresh) {
        put_detail(detail, detail_len,
                   c->path + ":" + std::to_string(n) + ": message " + std::to_string(number) +
                       " stands already on line " + std::to_string(it->second.line));
        return MSG_ERR_FORMAT;
      }
    }
    if (in.bad()) {
      put_detail(detail, detail_len, c->path + ": read error");
      return MSG_ERR_OPEN;
    }
    cat->impl = c.release();
    return MSG_OK;
  } catch (const std::bad_alloc &) {
    return MSG_ERR_MEMORY;
  }
}

MSG_EXPORT void msgclose(msgcat *cat) {
  if (cat == nullptr)
    return;
  delete static_cast<Catalogue *>(cat->impl);
  cat->impl = nullptr;
}

MSG_EXPORT uint32_t msgcount(const msgcat *cat) {
  if (cat == nullptr || cat->impl == nullptr)
    return 0;
  return static_cast<uint32_t>(static_cast<const Catalogue *>(cat->impl)->entries.size());
}

MSG_EXPORT uintptr_t msggettext(msgcat *cat, uint32_t msgno, char *dst, size_t dst_size,
                                uint64_t *len_out, char *work, uint64_t work_size,
                                uint32_t *found_out, uint32_t *status_out) {
  if (len_out != nullptr)
    *len_out = 0;
  if (found_out != nullptr)
    *found_out = 0;
  if (work != nullptr && work_size > 0)
    work[0] = '\0';
  auto status = [&](uint32_t s) {
    if (status_out != nullptr)
      *status_out = s;
  };
  if (cat == nullptr || dst == nullptr || dst_size == 0) {
    status(MSG_ERR_ARGUMENT);
    return 0;
  }
  if (cat->impl == nullptr) {
    status(MSG_ERR_NOT_OPEN);
    return 0;
  }
  const auto *c = static_cast<const Catalogue *>(cat->impl);
  auto it = c->entries.find(msgno);
  if (it == c->entries.end()) {
    status(MSG_ERR_NO_TEXT);
    return 0;
  }
  const std::string &text = it->second.text;
  size_t n = text.size() < dst_size - 1 ? text.size() : dst_size - 1;
  std::memcpy(dst, text.data(), n);
  dst[n] = '\0';
  if (work != nullptr && work_size > 0)
    std::snprintf(work, work_size, "%s:%zu", c->path.c_str(), it->second.line);
  if (len_out != nullptr)
    *len_out = text.size();
  if (found_out != nullptr)
    *found_out = 1;
  status(MSG_OK);
  return reinterpret_cast<uintptr_t>(dst);
}
