// The commands of morphel-types, over the metadata that the libraries registered at load.
#pragma once

#include <istream>
#include <ostream>
#include <string>

namespace MorphelTypesTool {

// Writes the version map, the modules and every type of the type map as one JSON object.
void Dump(std::ostream& out);

// Writes one type for a person; returns false (and writes nothing) when no type has that wire name.
bool Describe(std::ostream& out, const std::string& wireName);

// The C++ name of a type from its wire name ("morphel.task.TaskInfo.State" -> "Morphel::Task::TaskInfo::State").
std::string CppName(const std::string& wireName);

// A JSON string literal of `text` ("null" for a null pointer).
std::string Json(const char* text);
std::string Json(const std::string& text);

// "version2" -> "morphel.version.version2"; full names stay as they are.
std::string FullVersionName(const std::string& version);

// Reads a message from `in` and prints its contents; a message the codec refuses is reported on `err`
// with its reason and property path, and gives 1 (2 for an unknown version).
int DecodeCommand(const std::string& version, std::istream& in, std::ostream& out, std::ostream& err);

// Writes a value message holding a filled sample of the data object or fault `wireName`.
int EncodeCommand(const std::string& version, const std::string& wireName, std::ostream& out, std::ostream& err);

// Writes the WSDL (`wsdl`) or the XML Schema of a version; an unknown version is reported on `err` and
// gives 2.
int SchemaCommand(const std::string& version, bool wsdl, std::ostream& out, std::ostream& err);

}  // namespace MorphelTypesTool
