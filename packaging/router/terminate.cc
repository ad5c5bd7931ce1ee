// Linked into router builds only (static libstdc++). libstdc++'s default
// terminate handler names the type of an uncaught exception in demangled
// form, and with it comes the whole demangler: 40 KB of a 170 KB binary.
// Defining the handler variable here keeps that object file out of the
// link. The message stays the same for the exceptions the daemon's library
// calls can throw; any other type is named in its mangled form.
#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <typeinfo>

namespace {

struct type_name {
  const char *mangled;
  const char *shown;
};

constexpr type_name known_types[] = {
    {"St9bad_alloc", "std::bad_alloc"},
    {"St20bad_array_new_length", "std::bad_array_new_length"},
    {"St12length_error", "std::length_error"},
    {"St12out_of_range", "std::out_of_range"},
    {"St16invalid_argument", "std::invalid_argument"},
    {"St11logic_error", "std::logic_error"},
    {"St13runtime_error", "std::runtime_error"},
};

[[noreturn]] void router_terminate() {
  static bool terminating;
  if (terminating) {
    fputs("terminate called recursively\n", stderr);
    abort();
  }
  terminating = true;
  const std::type_info *type = abi::__cxa_current_exception_type();
  if (!type) {
    fputs("terminate called without an active exception\n", stderr);
    abort();
  }
  const char *name = type->name();
  if (*name == '*')
    name++;
  for (const type_name &t : known_types)
    if (strcmp(name, t.mangled) == 0)
      name = t.shown;
  fprintf(stderr, "terminate called after throwing an instance of '%s'\n", name);
  // What the standard exceptions say; the daemon throws nothing itself.
  try {
    throw;
  } catch (const std::exception &e) {
    fprintf(stderr, "  what():  %s\n", e.what());
  } catch (...) {
  }
  abort();
}

}  // namespace

namespace __cxxabiv1 {
std::terminate_handler __terminate_handler = router_terminate;
}  // namespace __cxxabiv1
