// cli_docs.h - the manual page and the bash completion of a tool, made from
// the same CLI11 definition as its --help, so the three never disagree.
//
//   prsrctl --help-man            roff manual page, section 1
//   prsrctl --completion bash     bash completion script
//
// Both options are hidden: the build runs them to make the files it
// installs (tools/CMakeLists.txt). print_docs() answers them before the
// command line is parsed, as they need no subcommand.
#ifndef TOOLS_CLI_DOCS_H
#define TOOLS_CLI_DOCS_H

#include <cctype>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tools {

namespace docs_detail {

inline std::vector<const CLI::App *> subcommands(const CLI::App &app) {
  return app.get_subcommands([](const CLI::App *) { return true; });
}

// Options shown by --help: hidden ones (empty group) stay hidden.
inline std::vector<const CLI::Option *> shown_options(const CLI::App &app, bool positional) {
  return app.get_options([positional](const CLI::Option *o) {
    return !o->get_group().empty() && o->get_positional() == positional;
  });
}

inline bool takes_value(const CLI::Option *o) { return o->get_expected_max() != 0; }

// Text for roff: backslashes and dashes escaped, no line starting with a
// control character.
inline std::string roff(const std::string &text) {
  std::string out;
  bool line_start = true;
  for (char c : text) {
    if (line_start && (c == '.' || c == '\''))
      out += "\\&";
    if (c == '\\')
      out += "\\e";
    else if (c == '-')
      out += "\\-";
    else
      out += c;
    line_start = c == '\n';
  }
  return out;
}

inline std::string option_names(const CLI::Option *o) {
  std::string names;
  for (const auto &s : o->get_snames())
    names += (names.empty() ? "" : ", ") + std::string("\\fB\\-") + roff(s) + "\\fR";
  for (const auto &l : o->get_lnames())
    names += (names.empty() ? "" : ", ") + std::string("\\fB\\-\\-") + roff(l) + "\\fR";
  if (takes_value(o))
    names += " \\fI" + roff(o->get_type_name()) + "\\fR";
  return names;
}

// A command's options; its -h,--help only at the top.
inline void man_options(std::ostream &out, const CLI::App &app, bool top) {
  for (const CLI::Option *o : shown_options(app, true))
    out << ".TP\n\\fI" << roff(o->get_name(true)) << "\\fR\n"
        << roff(o->get_description()) << "\n";
  for (const CLI::Option *o : shown_options(app, false))
    if (top || o != app.get_help_ptr())
      out << ".TP\n" << option_names(o) << "\n" << roff(o->get_description()) << "\n";
}

inline void man_command(std::ostream &out, const std::string &path, const CLI::App &app) {
  const auto subs = subcommands(app);
  out << ".SS \"" << roff(path);
  for (const CLI::Option *o : shown_options(app, true))
    out << (o->get_required() ? " " : " [") << roff(o->get_name(true))
        << (o->get_required() ? "" : "]");
  out << (subs.empty() ? "" : " COMMAND") << "\"\n" << roff(app.get_description()) << "\n";
  man_options(out, app, false);
  if (!app.get_footer().empty())
    out << ".PP\n.nf\n" << roff(app.get_footer()) << "\n.fi\n";
  for (const CLI::App *s : subs)
    man_command(out, path + " " + s->get_name(), *s);
}

// One case branch of the completion per command path: the subcommands and
// the options that may follow it.
inline void completion_words(std::ostream &out, const std::string &path, const CLI::App &app,
                             std::vector<std::string> &valued) {
  std::string words;
  for (const CLI::App *s : subcommands(app))
    words += " " + s->get_name();
  for (const CLI::Option *o : shown_options(app, false)) {
    if (!path.empty() && o == app.get_help_ptr())
      continue; // offered with the global options
    for (const auto &s : o->get_snames())
      words += " -" + s;
    for (const auto &l : o->get_lnames()) {
      words += " --" + l;
      if (takes_value(o))
        valued.push_back("--" + l);
    }
  }
  out << "    \"" << path << "\") echo \"" << (words.empty() ? "" : words.substr(1)) << "\";;\n";
  for (const CLI::App *s : subcommands(app))
    completion_words(out, path.empty() ? s->get_name() : path + " " + s->get_name(), *s, valued);
}

} // namespace docs_detail

// The manual page of the tool `name`: the --help text of the tool and of
// every command, with each command's footer as its description.
inline std::string man_page(const CLI::App &app, const std::string &name,
                            const std::string &version) {
  using namespace docs_detail;
  std::ostringstream out;
  std::string upper = name;
  for (char &c : upper)
    c = char(std::toupper(static_cast<unsigned char>(c)));
  std::string summary = app.get_description();
  if (summary.rfind(name + " - ", 0) == 0)
    summary.erase(0, name.size() + 3);
  out << ".TH " << upper << " 1 \"\" \"" << roff(name + " " + version)
      << "\" \"User Commands\"\n"
      << ".SH NAME\n" << roff(name) << " \\- " << roff(summary) << "\n"
      << ".SH SYNOPSIS\n.B " << roff(name) << "\n[\\fIOPTIONS\\fR] \\fICOMMAND\\fR ...\n"
      << ".SH OPTIONS\nThese options hold for every command, before or after it.\n";
  man_options(out, app, true);
  out << ".SH COMMANDS\n";
  for (const CLI::App *s : subcommands(app))
    man_command(out, name + " " + s->get_name(), *s);
  if (!app.get_footer().empty())
    out << ".SH NOTES\n.nf\n" << roff(app.get_footer()) << "\n.fi\n";
  return out.str();
}

// The bash completion of `name`: commands by position, then the options of
// the command named so far and the global ones; files elsewhere and after
// an option that takes a value.
inline std::string bash_completion(const CLI::App &app, const std::string &name) {
  using namespace docs_detail;
  std::string fn = "_" + name;
  std::ostringstream words;
  std::vector<std::string> valued;
  completion_words(words, "", app, valued);
  std::string valued_case;
  for (const auto &v : std::set<std::string>(valued.begin(), valued.end()))
    valued_case += (valued_case.empty() ? "" : "|") + v;
  std::ostringstream out;
  out << "# bash completion for " << name << ", made by `" << name << " --completion bash`\n"
      << fn << "_words() {\n  case \"$1\" in\n" << words.str() << "  esac\n}\n"
      << fn << "() {\n"
      << "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
      << "  local path='' w i next\n"
      << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "    w=${COMP_WORDS[i]}\n"
      << "    case $w in -*) continue ;; esac\n"
      << "    next=${path:+$path }$w\n"
      << "    [[ -n $(" << fn << "_words \"$next\") ]] && path=$next\n"
      << "  done\n";
  if (!valued_case.empty())
    out << "  case $prev in " << valued_case
        << ") COMPREPLY=($(compgen -f -- \"$cur\")); return ;; esac\n";
  out << "  local words\n"
      << "  words=\"$(" << fn << "_words \"$path\")\"\n"
      << "  [[ -n $path ]] && words+=\" $(" << fn << "_words '' | tr ' ' '\\n' | grep '^-' | tr '\\n' ' ')\"\n"
      << "  if [[ $cur != -* ]]; then\n"
      << "    words=$(tr ' ' '\\n' <<<\"$words\" | grep -v '^-' | tr '\\n' ' ')\n"
      << "  fi\n"
      << "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
      << "  [[ ${#COMPREPLY[@]} -eq 0 && $cur != -* ]] && COMPREPLY=($(compgen -f -- \"$cur\"))\n"
      << "  return 0\n"
      << "}\n"
      << "complete -F " << fn << " " << name << "\n";
  return out.str();
}

// Answers `--help-man` and `--completion bash` alone on the command line:
// returns the exit code, or -1 when neither was asked for.
inline int print_docs(const CLI::App &app, const std::string &name, const std::string &version,
                      int argc, char **argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help-man") == 0) {
    std::cout << man_page(app, name, version);
    return std::cout.flush() ? 0 : 1;
  }
  if (argc == 3 && std::strcmp(argv[1], "--completion") == 0) {
    if (std::strcmp(argv[2], "bash") != 0) {
      std::cerr << name << ": --completion: only bash is known\n";
      return 2;
    }
    std::cout << bash_completion(app, name);
    return std::cout.flush() ? 0 : 1;
  }
  return -1;
}

} // namespace tools

#endif
