// The generator against small definitions: what it rejects, with which message, and that what it
// accepts comes out the same every time.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Printer.h"

namespace fs = std::filesystem;

namespace {

struct Outcome {
    int status;
    std::string errors;
};

class Kodlgen : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("kodlgen-test-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        Write("versions.kodl",
              "version kodl.version.version0 \"\" \"\" dovra25\n"
              "version morphel.version.version1 morphel 1.0 morphel\n"
              "version morphel.version.version2 morphel 2.0 morphel\n"
              "relations morphel.version.version2\n  includes morphel.version.version1\n");
        Write("kodl/types.kodl",
              "module kodl\nwsdl-prefix \"\"\n"
              "builtin data DynamicData kodl.version.version0\n"
              "builtin data MethodFault kodl.version.version0 base=DynamicData\n"
              "builtin data RuntimeFault kodl.version.version0 base=MethodFault\n"
              "builtin managed ManagedObject kodl.version.version0\n");
    }
    void TearDown() override { fs::remove_all(dir_); }

    void Write(const std::string& name, const std::string& text) {
        fs::create_directories((dir_ / name).parent_path());
        std::ofstream(dir_ / name) << text;
    }

    Outcome Generate(const std::vector<std::string>& own, const std::string& out = "out") {
        std::string command = std::string(KODLGEN_PATH) + " --library morphel --out " + (dir_ / out).string() +
                              " --versions " + (dir_ / "versions.kodl").string() + " --import " +
                              (dir_ / "kodl/types.kodl").string();
        for (const auto& f : own) command += " " + (dir_ / f).string();
        command += " 2>" + (dir_ / "errors.txt").string();
        int status = std::system(command.c_str());
        std::ifstream in(dir_ / "errors.txt");
        std::stringstream text;
        text << in.rdbuf();
        return {status, text.str()};
    }

    // Generates one module file and expects exactly one error at `line` with `message`.
    void ExpectError(const std::string& body, int line, const std::string& message) {
        Write("morphel/types.kodl", body);
        Outcome r = Generate({"morphel/types.kodl"});
        EXPECT_NE(r.status, 0);
        std::string expected = (dir_ / "morphel/types.kodl").string() + ":" + std::to_string(line) + ": " + message;
        EXPECT_NE(r.errors.find(expected), std::string::npos) << "expected: " << expected << "\ngot: " << r.errors;
    }

    std::string Read(const std::string& name) {
        std::ifstream in(dir_ / name);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    fs::path dir_;
};

TEST_F(Kodlgen, RejectsMalformedDefinitionsWithFileAndLine) {
    ExpectError("data A version1\n", 1, "the file must start with 'module <wire prefix>'");
    ExpectError("module morphel\ndata A version1\n  b Missing 0\n", 3, "unknown type 'Missing'");
    ExpectError("module morphel\ndata A version1\ndata A version1\n", 3, "type 'morphel.A' is declared twice");
    ExpectError("module morphel\ndata A version9\n", 2, "unknown version 'morphel.version.version9'");
    ExpectError("module morphel\ndata A version1\n  b string 8\n", 3, "field flags 8 are not allowed here");
    ExpectError("module morphel\ndata A version1\n  b string 0\n  b int 0\n", 4, "field 'b' declared twice");
    ExpectError("module morphel\ndata A.B version1\n", 2, "'A.B' is nested in a type this module does not declare");
    ExpectError("module morphel\nenum E version1\n  one two one\n", 2, "value 'one' listed twice");
    ExpectError("module morphel\nenum E version1\n  not-a-name\n", 2, "value 'not-a-name' is not usable as a C++ name");
    ExpectError("module morphel\ndata A version1 colour=red\n", 2, "unknown option 'colour'");
    ExpectError("module morphel\ndata A version1 base=E\nenum E version1\n  x\n", 2,
                "the base of 'A' is not a data type");
    ExpectError("module morphel\ndata A version1 base=B\ndata B version1 base=A\n", 2,
                "the base chain of 'A' is circular");
    ExpectError("module morphel\ndata A version1 wsdl=X\ndata B version1 wsdl=X\n", 3,
                "WSDL name 'X' is already used by 'morphel.A'");
}

TEST_F(Kodlgen, ChecksManagedTypesAgainstTheMetadataRules) {
    ExpectError("module morphel\nmanaged M version1\n  method go Go version1\n    in a string 3\n", 4,
                "parameter flags must be 0, 1 or 2");
    ExpectError("module morphel\nmanaged M version1\n  method go Go_Task version1\n", 3,
                "method 'go': flags=0x1 goes with a WSDL name ending in _Task, and only there");
    ExpectError("module morphel\nmanaged M version1\n  method go Go version1 flags=0x1\n", 3,
                "method 'go': flags=0x1 goes with a WSDL name ending in _Task, and only there");
    ExpectError("module morphel\nmanaged M version1\n  property p string 0\n", 3,
                "a managed type's property carries flag 4");
    ExpectError("module morphel\ndata D version1\nmanaged M version1\n  method go Go version1\n    raises D\n", 5,
                "'D' is not a fault type");
    ExpectError("module morphel\nmanaged M version1\n  method go Go version1\n  method go Go2 version1\n", 4,
                "method 'go' declared twice");
}

TEST_F(Kodlgen, RequiresTheDefinitionToLieAtItsModulePath) {
    Write("morphel/types.kodl", "module morphel.task\ndata A version1\n");
    Outcome r = Generate({"morphel/types.kodl"});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.errors.find("module 'morphel.task' must be defined in a file ending in morphel/task/types.kodl"),
              std::string::npos)
        << r.errors;
}

TEST_F(Kodlgen, FieldNamedLikeAKeywordIsAField) {
    // A field line has flags in its third word, so "data" and "in" can be field names.
    Write("morphel/types.kodl",
          "module morphel\ndata A version1\n  data byte 1\n  in string 2\n  property propertyPath 0 version2\n");
    Outcome r = Generate({"morphel/types.kodl"});
    EXPECT_EQ(r.status, 0) << r.errors;
    std::string source = Read("out/src/morphel/types.cpp");
    EXPECT_NE(source.find("{\"data\", nullptr, &::Kitra::gByteTypeInfo, 1, \"morphel.version.version1\", "
                          "offsetof(A, data_), ::Kitra::Storage::Slot}"),
              std::string::npos)
        << source;
    EXPECT_NE(source.find("{\"property\", nullptr, &::Kitra::gPropertyPathTypeInfo, 0, \"morphel.version.version2\", "
                          "offsetof(A, property_), ::Kitra::Storage::String}"),
              std::string::npos);
}

TEST_F(Kodlgen, OutputIsDeterministicAndDerivesNames) {
    Write("morphel/task/types.kodl",
          "module morphel.task\nwsdl-prefix Morphel\n"
          "enum TaskInfo.State version1\n  queued running\n"
          "data TaskInfo version1\n  state TaskInfo.State 4\n  error kodl.MethodFault 6\n"
          "managed TaskManager version1\n  method createTask MorphelCreateTask version1 async\n"
          "    in spec TaskInfo 0\n    out TaskInfo 2\n");
    ASSERT_EQ(Generate({"morphel/task/types.kodl"}, "a").status, 0);
    ASSERT_EQ(Generate({"morphel/task/types.kodl"}, "b").status, 0);
    for (const char* f : {"include/morphel/task/types.h", "src/morphel/task/types.cpp", "src/morphel_versions.cpp"})
        EXPECT_EQ(Read(std::string("a/") + f), Read(std::string("b/") + f)) << f;
    std::string header = Read("a/include/morphel/task/types.h");
    std::string source = Read("a/src/morphel/task/types.cpp");
    EXPECT_NE(header.find("enum class TaskInfo_State : int32_t { queued, running };"), std::string::npos);
    EXPECT_NE(header.find("using State = TaskInfo_State;"), std::string::npos);
    EXPECT_NE(header.find("static const char* const STATE_RUNNING;"), std::string::npos);
    EXPECT_NE(header.find("static const char* const METHOD_CREATETASK;"), std::string::npos);
    EXPECT_NE(header.find("extern const ::Kitra::TypeInfo gMorphelTaskTaskInfoTypeInfo;"), std::string::npos);
    EXPECT_NE(header.find("extern ::Kitra::ManagedMethod* gMorphelTaskTaskManagerMethodObjects[];"), std::string::npos);
    EXPECT_NE(source.find("\"MorphelTaskInfoState\""), std::string::npos);
    EXPECT_NE(source.find("\"morphel.task.TaskManager.createTask\""), std::string::npos);
    // Each record is complete where it stands, records of other libraries named by their addresses: one
    // row per field, the data-type record from one template, nothing filled in at load.
    EXPECT_NE(source.find("constinit const ::Kitra::Binding::FieldTable<2> Morphel::Task::TaskInfo::_kFields({\n"
                          "    {\"state\", nullptr, &::gMorphelTaskTaskInfoStateTypeInfo, 4, \"morphel.version.version1\", "
                          "offsetof(TaskInfo, state_), ::Kitra::Storage::I32},\n"
                          "    {\"error\", nullptr, &::Kitra::gMethodFaultTypeInfo, 6, \"morphel.version.version1\", "
                          "offsetof(TaskInfo, error_), ::Kitra::Storage::Slot},\n});"),
              std::string::npos)
        << source;
    EXPECT_NE(source.find("::Kitra::Binding::DataRecord<Morphel::Task::TaskInfo, false>(&::gMorphelTaskTaskInfoTypeInfo, "
                          "&::Kitra::gDynamicDataTypeInfo, Morphel::Task::TaskInfo::_kFields);"),
              std::string::npos);
    EXPECT_NE(source.find("constexpr const char* kV_TaskInfo_State[] = {\"queued\", \"running\", nullptr};"),
              std::string::npos);
    EXPECT_NE(source.find("const char* const Morphel::Task::TaskInfo::STATE_RUNNING = kV_TaskInfo_State[1];"),
              std::string::npos);
    EXPECT_NE(source.find("{\"spec\", nullptr, &::gMorphelTaskTaskInfoTypeInfo, 0, \"morphel.version.version1\"},"),
              std::string::npos);
    EXPECT_EQ(source.find("= r;"), std::string::npos);
    EXPECT_EQ(source.find("nullptr, nullptr, nullptr, 4"), std::string::npos);  // no null type word
    // The implementation base: every operation raises NotImplemented naming it.
    EXPECT_NE(header.find("class TaskManagerBase : public virtual TaskManager, public virtual ::Kitra::ManagedObjectImpl {"),
              std::string::npos);
    EXPECT_NE(source.find("void Morphel::Task::TaskManagerBase::CreateTask(::Morphel::Task::TaskInfo*, "
                          "::Fundix::Ref<::Morphel::Task::TaskInfo>&) { "
                          "::Kitra::ThrowNotImplemented(\"morphel.task.TaskManager.createTask\"); }"),
              std::string::npos);
}

TEST(Printer, ReplacesVariablesAndRefusesUnknownOnes) {
    kodlgen::Printer p;
    p.Print("int $name$ = $value$; // $$1\n", {{"name", "x"}, {"value", "4"}});
    EXPECT_EQ(p.Text(), "int x = 4; // $1\n");
    EXPECT_THROW(p.Print("int $name$ = $valu$;", {{"name", "x"}, {"value", "4"}}), std::logic_error);
    EXPECT_THROW(p.Print("int $name = 1;", {{"name", "x"}}), std::logic_error);
    EXPECT_THROW(p.Print("$x$"), std::logic_error);
}

}  // namespace
