// Faults as exceptions: raising, catching along the class chain, copies, and faults as values.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <typeinfo>

#include <fundix/Exception.h>
#include <kitra/Kitra.h>
#include <morphel/agent/internal/fault/types.h>
#include <morphel/fault/types.h>
#include <morphel/types.h>

namespace {

namespace MF = Morphel::Fault;
namespace AF = Morphel::Agent::Internal::Fault;

// Raises `fault` through its base pointer and reports whether a handler for H caught it.
template <class H>
bool CaughtAs(Fundix::Ref<Kitra::MethodFault> fault) {
    try {
        fault->Throw();
    } catch (H&) {
        return true;
    } catch (...) {
        return false;
    }
    return false;
}

// True when a handler for each of H catches `fault`; false when any does not.
template <class... H>
bool CaughtAsEach(Fundix::Ref<Kitra::MethodFault> fault) {
    return (CaughtAs<H>(fault) && ...);
}

TEST(FaultTest, RaisedThroughTheBaseAndCaughtAlongTheChain) {
    Fundix::Ref<Kitra::MethodFault> fault(new MF::FileNotFound("/etc/missing.cfg"));
    EXPECT_TRUE(
        (CaughtAsEach<MF::FileNotFound::Exception, MF::MorphelFileFault::Exception,
                      MF::MorphelFault::Exception, Kitra::RuntimeFault::Exception,
                      Kitra::MethodFault::Exception, Fundix::Exception, std::exception>(fault.Get())));
    EXPECT_FALSE(CaughtAs<MF::InsufficientDiskSpace::Exception>(fault.Get()));
    EXPECT_FALSE(CaughtAs<MF::FileIOFault::Exception>(fault.Get()));
    EXPECT_EQ(fault->GetRefCount(), 1);

    // The building constructor makes a fault that the exception alone holds.
    MF::FileNotFound::Exception built("/tmp/x");
    ASSERT_NE(built.GetFault(), nullptr);
    EXPECT_EQ(built.GetFault()->GetFile(), "/tmp/x");
    EXPECT_EQ(built.GetFault()->GetRefCount(), 1);
    MF::FileNotFound::Exception copy(built);
    EXPECT_EQ(copy.GetFault(), built.GetFault());
    EXPECT_EQ(built.GetFault()->GetRefCount(), 2);
    EXPECT_STREQ(copy.what(), "morphel.fault.FileNotFound");

    // Without a fault (as after a failed allocation) the message is the root fault's name.
    MF::FileNotFound::Exception none(static_cast<MF::FileNotFound*>(nullptr));
    EXPECT_EQ(none.GetFault(), nullptr);
    EXPECT_STREQ(none.what(), "kodl.MethodFault");
}

TEST(FaultTest, FamiliesAndFaultsOutsideTheProgramRootCatchAlongTheirOwnChain) {
    EXPECT_FALSE(CaughtAs<Kitra::RuntimeFault::Exception>(new MF::PropertyInfoFault()));
    EXPECT_FALSE(CaughtAs<MF::MorphelFault::Exception>(new MF::PropertyInfoFault()));
    EXPECT_TRUE((CaughtAsEach<MF::PropertyInfoFault::Exception, Kitra::MethodFault::Exception>(
        new MF::PropertyInfoFault())));
    EXPECT_TRUE(CaughtAs<Kitra::RuntimeFault::Exception>(new AF::PlatformError(5)));
    EXPECT_FALSE(CaughtAs<MF::MorphelFault::Exception>(new AF::PlatformError(5)));
    EXPECT_FALSE(
        CaughtAs<MF::FileNotFound::Exception>(new MF::MorphelFault()));  // a base is not its subclass

    EXPECT_TRUE((CaughtAsEach<MF::NoHostConnection::Exception, MF::ConnectionFault::Exception>(
        new MF::NoHostConnectionFromAgent("agent-host"))));
    EXPECT_TRUE(
        (CaughtAsEach<AF::InsufficientScsiAttachPoints::Exception,
                      AF::InsufficientMassStorageBusAttachPoints::Exception, MF::MorphelFault::Exception>(
            new AF::NoAttachPointForDiskMigratedToScsi())));
    EXPECT_FALSE(
        CaughtAs<AF::InsufficientIdeAttachPoints::Exception>(new AF::NoAttachPointForDiskMigratedToScsi()));
    EXPECT_TRUE((CaughtAsEach<MF::ImportSourceNotFound::Exception, MF::ImportSourceFault::Exception>(
        new MF::OvfImportSourceNotFound("pkg.ovf"))));
    EXPECT_TRUE(CaughtAs<MF::ImportSourceNoPermission::Exception>(new MF::ImportSourceLiveNotAdmin()));
    EXPECT_EQ(Kitra::GetType<MF::ImportSourceLiveNotAdmin>()->GetBaseType(),
              Kitra::GetType<MF::ImportSourceNoPermission>());
}

TEST(FaultTest, EveryFaultRaisesItsOwnException) {
    size_t count = 0;
    std::set<std::string> outsideRoot;
    std::set<std::string> exceptionClasses;
    Kitra::Type* root = Kitra::GetType<MF::MorphelFault>();
    for (const Kitra::Module* module : Kitra::GetTypeMap()->GetModules()) {
        if (module->source != "sysimage/kodl/morphel/fault/types" &&
            module->source != "sysimage/kodl/morphel/agent/internal/fault/types")
            continue;
        for (Kitra::Type* type : module->types) {
            const std::string name = type->GetName();
            const std::string shortName = name.substr(name.rfind('.') + 1);
            SCOPED_TRACE(name);
            ++count;
            EXPECT_EQ(type->GetWsdlName(), "Morphel" + shortName);
            if (!type->IsA(root)) outsideRoot.insert(shortName);

            Fundix::Ref<Kitra::DataObject> object = type->AsDataObjectType()->CreateInstance();
            auto* fault = dynamic_cast<Kitra::MethodFault*>(object.Get());
            ASSERT_NE(fault, nullptr);
            std::unique_ptr<Kitra::MethodFault::Exception> created(fault->CreateException());
            ASSERT_NE(created, nullptr);
            EXPECT_STREQ(created->what(), name.c_str());
            EXPECT_EQ(created->GetFault(), fault);
            // The exception class is the fault's own nested one.
            const std::string mangled = typeid(*created).name();
            EXPECT_NE(mangled.find(std::to_string(shortName.size()) + shortName + "9Exception"), std::string::npos)
                << mangled;
            exceptionClasses.insert(mangled);

            try {
                fault->Throw();
            } catch (Kitra::MethodFault::Exception& e) {
                EXPECT_EQ(typeid(e), typeid(*created));
                EXPECT_EQ(e.GetFault(), fault);
                EXPECT_EQ(fault->GetRefCount(), 3);
                std::unique_ptr<Fundix::Exception> clone(e.Clone());
                ASSERT_NE(clone, nullptr);
                EXPECT_EQ(typeid(*clone), typeid(e));
                try {
                    clone->Throw();
                } catch (Fundix::Exception& again) {
                    EXPECT_EQ(typeid(again), typeid(e));
                }
            }
            created.reset();
            EXPECT_EQ(fault->GetRefCount(), 1);
        }
    }
    EXPECT_EQ(count, 168u);
    EXPECT_EQ(exceptionClasses.size(), 168u);
    EXPECT_EQ(outsideRoot, (std::set<std::string>{"PlatformError", "PropertyInfoFault"}));
}

}  // namespace
