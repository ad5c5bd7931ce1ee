#include "frame/text.h"

#include <cstring>

size_t text_split(std::string_view text, std::string_view *tokens, size_t max) {
  size_t count = 0;
  while (count < max) {
    const size_t start = text.find_first_not_of(' ');
    if (start == std::string_view::npos)
      break;
    text.remove_prefix(start);
    const size_t end = text.find(' ');
    tokens[count++] = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end);
  }
  return count;
}

bool text_printable(std::string_view text) {
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7f)
      return false;
  }
  return true;
}

bool text_copy(std::string_view text, char *field, size_t size) {
  if (text.size() >= size)
    return false;
  memcpy(field, text.data(), text.size());
  field[text.size()] = '\0';
  return true;
}

namespace {

bool url_unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

bool shell_plain(unsigned char c) {
  if (c == '~')  // tilde expansion
    return false;
  return url_unreserved(c) || c == '/' || c == ':' || c == ',' || c == '+' || c == '=' ||
         c == '@' || c == '%';
}

}  // namespace

std::string text_shell_word(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    if (!shell_plain(static_cast<unsigned char>(ch)))
      out += '\\';
    out += ch;
  }
  return out;
}

std::string text_url_credential(std::string_view text) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (url_unreserved(c)) {
      out += ch;
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}
