// Writes the library's settings tables out for the files that cannot include
// them, so that the C++ tables stay the one place that names the settings:
//   velmora-settings-table dict OUT [FILE...]   a libFuzzer dictionary: every
//       name reachable by name and every stop criterion, then each FILE as is
//   velmora-settings-table python OUT           the Python package's module
//       (the tables, the device codes and the hosts' default context length)
//   velmora-settings-table csharp OUT           the C# binding's Device.cs (the
//       device codes and the default context length)
//   velmora-settings-table check-python|check-csharp FILE
//       fails while FILE differs from what `python`/`csharp` writes, naming the
//       command that writes it anew
#include <cctype>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>

#include "core/device.h"
#include "core/setting.h"
#include "openvino_bindings.h"
#include "llm/llm_settings.h"
#include "whisper/whisper_settings.h"

namespace {

const char* KindName(velmora::SettingKind kind) {
    switch (kind) {
        case velmora::SettingKind::Size: return "Size";
        case velmora::SettingKind::Integer: return "Integer";
        case velmora::SettingKind::Float: return "Float";
        case velmora::SettingKind::Bool: return "Bool";
        case velmora::SettingKind::StopCriteria: return "StopCriteria";
        case velmora::SettingKind::Text: return "Text";
        case velmora::SettingKind::TextSet: return "TextSet";
        case velmora::SettingKind::IdSet: return "IdSet";
        case velmora::SettingKind::LanguageMap: return "LanguageMap";
        case velmora::SettingKind::IdList: return "IdList";
    }
    return "?";
}

template <class Row, std::size_t N>
void AddNames(const Row (&rows)[N], std::set<std::string>& names) {
    for (const Row& row : rows)
        if (row.byName) names.insert(row.name);
}

std::string Dictionary() {
    std::set<std::string> names;
    AddNames(velmora::llm::kSettings, names);
    AddNames(velmora::whisper::kSettings, names);
    for (const char* criterion : velmora::kStopCriteriaNames) names.insert(criterion);
    std::string text = "# Written by velmora-settings-table from the library's settings tables.\n";
    for (const std::string& name : names) text += "\"" + name + "\"\n";
    return text;
}

template <class Row, std::size_t N>
std::string PythonTable(const char* variable, const Row (&rows)[N]) {
    std::string text = std::string(variable) + ": dict[str, str] = {\n";
    for (const Row& row : rows)
        if (row.byName) text += std::string("    \"") + row.name + "\": \"" + KindName(row.kind()) + "\",\n";
    return text + "}\n";
}

// The texts `item` makes of 0 .. count-1, separated by commas.
template <class Item>
std::string Joined(std::size_t count, Item item) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += (i ? ", " : "") + item(i);
    return text;
}

std::string PythonModule() {
    const std::string criteria = Joined(std::size(velmora::kStopCriteriaNames), [](std::size_t i) {
        return "\"" + std::string(velmora::kStopCriteriaNames[i]) + "\"";
    });
    const std::string devices = Joined(std::size(velmora::kDeviceNames), [](std::size_t code) {
        return "\"" + std::string(velmora::kDeviceNames[code]) + "\": " + std::to_string(code);
    });
    return "\"\"\"The settings each family takes by name, in the library's table order, with\n"
           "the kind of each, the stop criteria's names, the device codes and the hosts'\n"
           "default context length. Written by the build tool velmora-settings-table\n"
           "from the library's own tables and header: the build fails while this file\n"
           "differs from what it writes.\"\"\"\n\n" +
           PythonTable("LLM", velmora::llm::kSettings) + "\n" + PythonTable("WHISPER", velmora::whisper::kSettings) +
           "\nSTOP_CRITERIA: tuple[str, ...] = (" + criteria + ")\n" +
           "\nDEVICES: dict[str, int] = {" + devices + "}\n" +
           "\nDEFAULT_CONTEXT_LENGTH: int = " + std::to_string(VELMORA_DEFAULT_CONTEXT_LENGTH) + "\n";
}

// The enum takes each device's name with only its first letter capital, as C# names go.
std::string CSharpFile() {
    const std::string members = Joined(std::size(velmora::kDeviceNames), [](std::size_t code) {
        std::string name = velmora::kDeviceNames[code];
        for (std::size_t i = 1; i < name.size(); ++i)
            name[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
        return name + " = " + std::to_string(code);
    });
    return "// Written by the build tool velmora-settings-table from the library's header and\n"
           "// device table: the build fails while this file differs from what it writes.\n"
           "namespace Velmora\n{\n"
           "    /// <summary>Where a model runs; the numbers are the library's device codes.</summary>\n"
           "    public enum Device { " + members + " }\n\n"
           "    internal static class Defaults\n    {\n"
           "        /// <summary>The context length hosts give a new LLM when none is asked for.</summary>\n"
           "        internal const int ContextLength = " + std::to_string(VELMORA_DEFAULT_CONTEXT_LENGTH) + ";\n"
           "    }\n}\n";
}

bool Write(const char* path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    return static_cast<bool>(out.flush());
}

bool Append(std::string& text, const char* path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    text += contents.str();
    return static_cast<bool>(in);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 2 ? argv[1] : "";
    if (command == "dict") {
        std::string text = Dictionary();
        for (int i = 3; i < argc; ++i)
            if (!Append(text, argv[i])) return std::cerr << "cannot read " << argv[i] << "\n", 1;
        return Write(argv[2], text) ? 0 : (std::cerr << "cannot write " << argv[2] << "\n", 1);
    }
    const bool python = command == "python" || command == "check-python";
    if ((python || command == "csharp" || command == "check-csharp") && argc == 3) {
        const std::string wanted = python ? PythonModule() : CSharpFile();
        if (command.rfind("check-", 0) != 0)
            return Write(argv[2], wanted) ? 0 : (std::cerr << "cannot write " << argv[2] << "\n", 1);
        std::string current;
        if (Append(current, argv[2]) && current == wanted) return 0;
        std::cerr << argv[2] << " differs from what the library's tables and header make of it;"
                  << " write it anew with\n  " << argv[0] << " " << command.substr(6) << " " << argv[2] << "\n";
        return 1;
    }
    std::cerr << "usage: " << argv[0] << " dict OUT [FILE...] | python|csharp OUT | check-python|check-csharp FILE\n";
    return 2;
}
