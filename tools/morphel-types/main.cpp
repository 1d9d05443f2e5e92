// morphel-types: looks at the interface metadata that the libraries register at load.
//
//   morphel-types dump               the whole type map as JSON
//   morphel-types describe NAME...   one type for a person, by wire name
//   morphel-types list               the wire names of all types, one per line
//   morphel-types decode --version V         reads a message on standard input and prints what it holds
//   morphel-types encode --version V NAME    writes a message holding a filled sample of a data type
//   morphel-types wsdl --version V           the WSDL 1.1 of a version, its XML Schema embedded
//   morphel-types xsd --version V            the XML Schema of a version
#include <iostream>
#include <string>

#include <kitra/Kitra.h>
#include <morphel/types.h>

#include "Tool.h"

namespace {

int Usage(std::ostream& out, int status) {
    out << "usage: morphel-types dump\n"
           "       morphel-types describe <wire name>...   (for example morphel.task.TaskInfo)\n"
           "       morphel-types list\n"
           "       morphel-types decode --version <version>   (a message on standard input; version2 or\n"
           "                                                  morphel.version.version2)\n"
           "       morphel-types encode --version <version> <wire name>   (a filled sample value)\n"
           "       morphel-types wsdl --version <version>   (WSDL 1.1 of the version, schema embedded)\n"
           "       morphel-types xsd --version <version>    (XML Schema of the version)\n";
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // Referencing one type keeps the bindings library linked, and with it every registration.
    (void)Kitra::GetType<Morphel::ComputerSpec>();
    if (argc < 2) return Usage(std::cerr, 2);
    std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") return Usage(std::cout, 0);
    if (command == "dump" && argc == 2) {
        MorphelTypesTool::Dump(std::cout);
        return std::cout ? 0 : 1;
    }
    if (command == "list" && argc == 2) {
        for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) std::cout << t->GetName() << "\n";
        return 0;
    }
    if (command == "describe" && argc >= 3) {
        int status = 0;
        for (int i = 2; i < argc; ++i) {
            if (i > 2) std::cout << "\n";
            if (!MorphelTypesTool::Describe(std::cout, argv[i])) {
                std::cerr << "morphel-types: no type named '" << argv[i]
                          << "' (wire names look like morphel.task.TaskInfo; 'morphel-types list' lists them)\n";
                status = 1;
            }
        }
        return status;
    }
    if (command == "decode" && argc == 4 && std::string(argv[2]) == "--version")
        return MorphelTypesTool::DecodeCommand(argv[3], std::cin, std::cout, std::cerr);
    if (command == "encode" && argc == 5 && std::string(argv[2]) == "--version")
        return MorphelTypesTool::EncodeCommand(argv[3], argv[4], std::cout, std::cerr);
    if ((command == "wsdl" || command == "xsd") && argc == 4 && std::string(argv[2]) == "--version")
        return MorphelTypesTool::SchemaCommand(argv[3], command == "wsdl", std::cout, std::cerr);
    return Usage(std::cerr, 2);
}
