// The commands of morphel-types, over the metadata that the libraries registered at load.
#pragma once

#include <ostream>
#include <string>

namespace MorphelTypesTool {

// Writes the version map, the modules and every type of the type map as one JSON object.
void Dump(std::ostream& out);

// Writes one type for a person; returns false (and writes nothing) when no type has that wire name.
bool Describe(std::ostream& out, const std::string& wireName);

// The C++ name of a type from its wire name ("morphel.task.TaskInfo.State" -> "Morphel::Task::TaskInfo::State").
std::string CppName(const std::string& wireName);

}  // namespace MorphelTypesTool
