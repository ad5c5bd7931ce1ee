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
