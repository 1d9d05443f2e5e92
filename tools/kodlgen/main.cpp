// kodlgen: reads interface definitions (.kodl) and writes the C++ of one library.
//
//   kodlgen --library NAME --out DIR --versions FILE [--import FILE]... FILE...
//
// FILEs are the library's own modules; imported files are read for their declarations only. Output
// files are written only when their text changes, so that a rebuild recompiles only what changed.
// Errors are printed as "file:line: message", and the exit status is 1.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Model.h"

namespace fs = std::filesystem;

namespace {

bool ReadFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return true;
}

bool WriteIfChanged(const fs::path& path, const std::string& text) {
    std::string old;
    if (ReadFile(path.string(), old) && old == text) return true;
    fs::create_directories(path.parent_path());
    fs::path temp = path;
    temp += ".tmp";
    {
        std::ofstream out(temp, std::ios::binary);
        out << text;
        if (!out) return false;
    }
    std::error_code ec;
    fs::rename(temp, path, ec);
    return !ec;
}

int Usage() {
    std::cerr << "usage: kodlgen --library NAME --out DIR --versions FILE [--import FILE]... FILE...\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string library, out, versions;
    std::vector<std::string> own, imports;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](std::string& target) {
            if (i + 1 >= argc) return false;
            target = argv[++i];
            return true;
        };
        if (arg == "--library") {
            if (!value(library)) return Usage();
        } else if (arg == "--out") {
            if (!value(out)) return Usage();
        } else if (arg == "--versions") {
            if (!value(versions)) return Usage();
        } else if (arg == "--import") {
            std::string f;
            if (!value(f)) return Usage();
            imports.push_back(f);
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage();
        } else {
            own.push_back(arg);
        }
    }
    if (library.empty() || out.empty() || own.empty()) return Usage();

    kodlgen::Model model;
    auto load = [&](const std::string& path, bool imported) {
        std::string text;
        if (!ReadFile(path, text)) {
            model.Error({path, 0}, "cannot read the file");
            return;
        }
        kodlgen::ParseModuleFile(model, path, text, imported);
    };
    // A stable order whatever the order of the command line: imports first, then own modules by path.
    std::sort(own.begin(), own.end());
    std::sort(imports.begin(), imports.end());
    for (const auto& f : imports) load(f, true);
    for (const auto& f : own) load(f, false);
    if (!versions.empty()) {
        std::string text;
        if (!ReadFile(versions, text)) model.Error({versions, 0}, "cannot read the file");
        else kodlgen::ParseVersionsFile(model, versions, text);
    }
    if (model.errors.empty()) kodlgen::Resolve(model);
    if (!model.errors.empty()) {
        for (const auto& e : model.errors) std::cerr << e.where.file << ":" << e.where.line << ": " << e.message << "\n";
        return 1;
    }
    std::vector<kodlgen::OutputFile> files;
    try {
        files = kodlgen::Emit(model, library);
    } catch (const std::logic_error& e) {  // a template of the generator itself is wrong
        std::cerr << "kodlgen: " << e.what() << "\n";
        return 2;
    }
    for (const auto& file : files) {
        if (!WriteIfChanged(fs::path(out) / file.path, file.text)) {
            std::cerr << "kodlgen: cannot write " << (fs::path(out) / file.path).string() << "\n";
            return 1;
        }
    }
    return 0;
}
