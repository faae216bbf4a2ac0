// Manual page and completion for bash, both made of what the command line's parser knows: what
// --help shows is written once.

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "host/app/help_formatter.h"

namespace tavro::host {

namespace {

/// Text for roff: its own signs are taken literally, lines stay lines.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char letter : text) {
    const bool beginsLine = result.empty() || result.back() == '\n';
    if (beginsLine && (letter == '.' || letter == '\''))
      result += "\\&";
    if (letter == '\\')
      result += "\\e";
    else
      result += letter == '-' ? std::string("\\-") : std::string(1, letter);
  }
  return result;
}

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

std::string paragraphs(const std::string& text) {
  return replaced(escaped(text), "\n", "\n.br\n") + '\n';
}

std::string asItStands(const std::string& text) {
  return ".nf\n" + escaped(text) + "\n.fi\n";
}

bool isShown(const CLI::Option* option) {
  return !option->get_group().empty();
}

/// The names of an option as they are typed, the short one first.
std::vector<std::string> namesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames())
    names.push_back('-' + name);
  for (const std::string& name : option.get_lnames())
    names.push_back("--" + name);
  return names;
}

bool takesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0;
}

/// What an option can be, where its description has a line `NAME: ...` for each.
std::vector<std::string> choicesOf(const CLI::Option& option) {
  std::vector<std::string> choices;
  std::string_view rest = option.get_description();
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const std::string_view name = line.substr(0, line.find(": "));
    if (name.size() < line.size() && std::ranges::all_of(name, [](unsigned char letter) {
          return std::islower(letter) != 0 || std::isdigit(letter) != 0 || letter == '-';
        }))
      choices.emplace_back(name);
  }
  return choices;
}

std::string optionsAsRoff(const CLI::App& app) {
  std::string text;
  for (const CLI::Option* option : app.get_options(isShown)) {
    text += ".TP\n";
    if (option->get_positional())
      text += "\\fI" + escaped(option->get_name()) + "\\fR";
    for (const std::string& name : namesOf(*option))
      text += (text.ends_with("\\fR") ? ", \\fB" : "\\fB") + escaped(name) + "\\fR";
    if (takesValue(*option) && !option->get_positional())
      text += " \\fI" + escaped(option->get_type_name()) + "\\fR";
    text += '\n' + paragraphs(option->get_description());
  }
  return text;
}

std::string synopsis(const CLI::App& app, const std::string& command) {
  std::string text = ".B " + escaped(command) + "\n[\\fIOPTIONS\\fR]";
  for (const CLI::Option* option : app.get_options(isShown))
    if (option->get_positional())
      text += " \\fI" + escaped(option->get_name()) + "\\fR";
  return text + '\n';
}

std::string manualPage(const CLI::App& app, const std::string& version) {
  const std::string& name = app.get_name();
  std::string title = name;
  std::ranges::transform(title, title.begin(),
                         [](unsigned char letter) { return std::toupper(letter); });
  const std::string description = app.get_description();
  const std::string first = description.substr(0, description.find_first_of(".:\n"));
  std::string text =
      ".TH " + escaped(title) + " 1 \"\" \"" + escaped(version) + "\" \"User commands\"\n";
  text += ".SH NAME\n" + escaped(name) + " \\- " + escaped(first) + "\n.SH SYNOPSIS\n";
  const std::vector<const CLI::App*> commands = app.get_subcommands({});
  if (commands.empty())
    text += synopsis(app, name);
  for (const CLI::App* command : commands)
    text += (command == commands.front() ? "" : ".br\n") +
            synopsis(*command, name + ' ' + command->get_name());
  text += ".SH DESCRIPTION\n" + paragraphs(description) + ".SH OPTIONS\n" + optionsAsRoff(app);
  for (const CLI::App* command : commands)
    text += ".SS " + escaped(command->get_name()) + '\n' + paragraphs(command->get_description()) +
            optionsAsRoff(*command);
  return text + ".SH NOTES\n" + asItStands(app.get_footer());
}

/// The branches of a case over the word before: what may follow it. Where that is no choice, names
/// of files are completed.
std::string valueCases(const CLI::App& app) {
  std::string text;
  std::string others;
  for (const CLI::Option* option : app.get_options(isShown)) {
    std::string pattern;
    for (const std::string& name : namesOf(*option))
      pattern += (pattern.empty() ? "" : "|") + name;
    if (pattern.empty() || !takesValue(*option))
      continue;
    std::string words;
    for (const std::string& choice : choicesOf(*option))
      words += choice + ' ';
    if (words.empty())
      others += (others.empty() ? "" : "|") + pattern;
    else
      text.append("    ")
          .append(pattern)
          .append(") COMPREPLY=($(compgen -W '")
          .append(words)
          .append("' -- \"$word\")); return ;;\n");
  }
  return text + (others.empty() ? "" : "    " + others + ") return ;;\n");
}

std::string wordsOf(const CLI::App& app) {
  std::string words;
  for (const CLI::Option* option : app.get_options(isShown))
    for (const std::string& name : namesOf(*option))
      words += name + ' ';
  return words;
}

std::string completion(const CLI::App& app) {
  const std::string function = '_' + replaced(app.get_name(), "-", "_");
  std::string values = valueCases(app);
  std::string words = wordsOf(app);
  std::string commands;
  for (const CLI::App* command : app.get_subcommands({})) {
    values += valueCases(*command);
    words += wordsOf(*command);
    commands += command->get_name() + ' ';
  }
  return "# Completion for bash.\n" + function +
         "() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  case $before in\n" +
         values +
         "  esac\n"
         "  if [[ $word == -* ]]; then\n"
         "    COMPREPLY=($(compgen -W '" +
         words +
         "' -- \"$word\"))\n"
         "  elif ((COMP_CWORD == 1)); then\n"
         "    COMPREPLY=($(compgen -W '" +
         commands +
         "' -- \"$word\"))\n"
         "  fi\n"
         "}\n"
         "complete -o default -F " +
         function + ' ' + app.get_name();
}

}  // namespace

void addManual(CLI::App& app, const std::string& version) {
  const auto print = [&app](const char* name, auto make) {
    app.add_flag_callback(name, [make] { throw CLI::CallForVersion(make(), 0); })->group("");
  };
  print("--manual", [&app, version] { return manualPage(app, version); });
  print("--bash-completion", [&app] { return completion(app); });
}

}  // namespace tavro::host
