// Every data object and fault travels through the codec in every API version that knows it.
#include <gtest/gtest.h>

#include <kitra/Kitra.h>
#include <kitra/Soap.h>
#include <kitra/fault/types.h>
#include <morphel/types.h>

#include "Sample.h"

namespace {

using Kitra::Soap::Codec;

const char* const kVersions[] = {"morphel.version.version1", "morphel.version.version2", "morphel.version.version3",
                                 "morphel.version.version4"};

std::string Explain(const Fundix::Exception& e) {
    std::string text = e.GetMessage();
    if (auto* f = dynamic_cast<const Kitra::MethodFault::Exception*>(&e)) {
        if (auto* r = dynamic_cast<Kitra::Fault::InvalidRequest*>(f->GetFault())) {
            text += ": " + r->GetReason();
            if (r->GetInvalidProperty().IsSet()) text += " at " + r->GetInvalidProperty().GetValue();
        } else if (auto* a = dynamic_cast<Kitra::Fault::InvalidArgument*>(f->GetFault())) {
            if (a->GetInvalidProperty().IsSet()) text += " at " + a->GetInvalidProperty().GetValue();
        } else if (auto* n = dynamic_cast<Kitra::Fault::NotInVersion*>(f->GetFault())) {
            text += ": " + n->GetName();
            if (n->GetInvalidProperty().IsSet()) text += " at " + n->GetInvalidProperty().GetValue();
        }
    }
    return text;
}

std::vector<const Kitra::DataObjectType*> DataTypes() {
    (void)Kitra::GetType<Morphel::ComputerSpec>();
    std::vector<const Kitra::DataObjectType*> all;
    for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes())
        if (auto* d = t->AsDataObjectType()) all.push_back(d);
    return all;
}

TEST(RoundTrip, EveryTypeInEveryVersionThatKnowsIt) {
    size_t trips = 0;
    Codec latest(kVersions[3]);
    for (const char* version : kVersions) {
        Codec codec(version);
        for (const Kitra::DataObjectType* type : DataTypes()) {
            if (!codec.Knows(type)) continue;
            SCOPED_TRACE(std::string(type->GetName()) + " in " + version);
            // Filled for the latest version, written in this one: the later fields stay behind.
            Fundix::Ref<Kitra::DataObject> full = MorphelTypesTool::Sample(type, latest);
            Fundix::Ref<Kitra::DataObject> expected = MorphelTypesTool::Sample(type, codec);
            std::string message;
            try {
                codec.EncodeValue(full.Get(), message);
                Kitra::Soap::Message back = codec.Decode(message);
                ASSERT_EQ(back.kind, Kitra::Soap::MessageKind::Value);
                ASSERT_NE(back.value, nullptr);
                EXPECT_EQ(back.value->_GetType(), type);
                EXPECT_TRUE(expected->_IsEqual(back.value.Get(), false)) << message;
                ++trips;
            } catch (const Fundix::Exception& e) {
                ADD_FAILURE() << Explain(e) << "\n" << message;
            }
        }
    }
    EXPECT_GT(trips, 2000u);
}

}  // namespace
