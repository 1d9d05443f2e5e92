// The metadata records as the object model reads them: checks that hold for every record of the library
// (the fields of one sample type per module, and every method, are in the golden catalogue).
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include <kitra/Kitra.h>
#include <morphel/types.h>

#include "../soap/Wire.h"

namespace {

std::vector<Kitra::Type*> MorphelTypes() {
    std::vector<Kitra::Type*> all;
    for (const Kitra::Module* m : Kitra::GetTypeMap()->GetModules())
        if (m->source.rfind("sysimage/kodl/morphel/", 0) == 0) all.insert(all.end(), m->types.begin(), m->types.end());
    return all;
}

// The record ending a property or parameter list.
template <class Info>
void CheckTerminator(const Info* p) {
    EXPECT_EQ(p->privilege, nullptr);
    EXPECT_EQ(p->type, nullptr);
    EXPECT_EQ(p->version, nullptr);
    EXPECT_EQ(p->flags, Kitra::kFlagTerminator);
    if constexpr (std::is_same_v<Info, Kitra::PropertyTypeInfo>) {
        EXPECT_EQ(p->extra, nullptr);
    }
}

namespace {

// The record names its class's field layout, whose runs hold every field once, grouped by storage class in
// the order the size walk relies on.
void CheckLayout(const Kitra::DataTypeInfo* info) {
    const Kitra::FieldLayout* layout = info->layout;
    if (info->properties == nullptr) {
        EXPECT_EQ(layout, nullptr);
        return;
    }
    ASSERT_NE(layout, nullptr);
    EXPECT_EQ(layout->properties, info->properties);
    uint32_t count = 0;
    while (info->properties[count].name != nullptr) ++count;
    ASSERT_EQ(layout->count, count);
    std::vector<int> seen(count, 0);
    const uint32_t* at = layout->runs;
    size_t order = 0;
    for (uint32_t runs = *at++; runs != 0; --runs) {
        const uint32_t header = *at++;
        const Kitra::Storage storage = Kitra::RunStorage(header);
        ASSERT_GT(Kitra::RunCount(header), 0u);
        while (order < std::size(Kitra::kRunOrder) && Kitra::kRunOrder[order] != storage) ++order;
        ASSERT_LT(order++, std::size(Kitra::kRunOrder)) << "runs out of order";
        for (uint32_t n = Kitra::RunCount(header); n != 0; --n, ++at) {
            uint32_t i = 0;
            while (i < count && layout->fields[i].offset != *at)
                ++i;
            ASSERT_LT(i, count);
            EXPECT_EQ(layout->fields[i].storage, storage);
            ++seen[i];
        }
    }
    EXPECT_EQ(seen, std::vector<int>(count, 1));
}

}  // namespace

TEST(RecordTest, EveryDataRecordIsCompleteAndKeepsWhatIsSetInIt) {
    std::vector<std::string> withExtra;
    Kitra::Type* methodFault = Kitra::GetType<Kitra::MethodFault>();
    for (Kitra::Type* type : MorphelTypes()) {
        Kitra::DataObjectType* data = type->AsDataObjectType();
        if (data == nullptr) continue;
        SCOPED_TRACE(type->GetName());
        const Kitra::DataTypeInfo* info = data->GetDataTypeInfo();

        // Imported words were filled at load: the base resolves, and faults are exactly the method faults.
        ASSERT_NE(data->GetBaseType(), nullptr);
        EXPECT_TRUE(data->IsA(Kitra::GetType<Kitra::DynamicData>()));
        EXPECT_EQ(type->GetKind() == Kitra::kKindFault, data->IsA(methodFault));

        if (info->properties == nullptr) {
            EXPECT_EQ(info->getProperty, &Kitra::Fields::NoGet);
            EXPECT_EQ(info->setProperty, &Kitra::Fields::NoSet);
            EXPECT_EQ(info->isPropertySet, &Kitra::Fields::AlwaysSet);
            EXPECT_EQ(info->initProperty, &Kitra::Fields::NoInit);
        } else {
            EXPECT_NE(info->properties[0].name, nullptr) << "an empty property list is a null word";
        }
        CheckLayout(info);
        const Kitra::PropertyTypeInfo* p = info->properties;
        for (; p != nullptr && p->name != nullptr; ++p) {
            SCOPED_TRACE(p->name);
            ASSERT_NE(p->type, nullptr);
            ASSERT_NE(p->version, nullptr);
            EXPECT_EQ(p->privilege, nullptr);
            EXPECT_LE(p->flags, 7u);
            if (p->extra != nullptr) {
                EXPECT_STREQ(p->extra, "");
                withExtra.push_back(std::string(type->GetName()) + "." + p->name);
            }
        }
        if (p != nullptr) CheckTerminator(p);

        // The record's functions make instances and arrays of this very type.
        Fundix::Ref<Kitra::DataObject> object = data->CreateInstance();
        ASSERT_TRUE(object);
        EXPECT_EQ(object->_GetType(), type);
        EXPECT_EQ(object->_GetDataType(), data);
        Fundix::Ref<Kitra::ArrayBase> array = data->CreateArray();
        ASSERT_TRUE(array);
        EXPECT_EQ(array->GetElementType(), type);

        // A default object: required fields are set, optional ones and arrays are not; every value reads.
        const auto& all = data->GetProperties();
        for (size_t i = 0; i < all.size(); ++i) {
            const Kitra::PropertyTypeInfo* q = all[i].info;
            SCOPED_TRACE(q->name);
            const int index = static_cast<int>(i);
            EXPECT_EQ(data->IsPropertySet(object.Get(), index), (q->flags & 3u) == 0) << q->flags;
            EXPECT_NO_THROW(data->GetPropertyValue(object.Get(), index));
            if ((q->flags & Kitra::kFlagArray) == 0) continue;
            all[i].owner->initProperty(object.Get(), all[i].localIndex);
            auto value = data->GetPropertyValue(object.Get(), index);
            auto* made = dynamic_cast<Kitra::ArrayBase*>(value.Get());
            ASSERT_NE(made, nullptr);
            const char* element = q->type->kind == Kitra::kKindManaged ? "kodl.ManagedObject" : q->type->name;
            EXPECT_STREQ(made->GetElementType()->GetName(), element);
            EXPECT_FALSE(data->IsPropertySet(object.Get(), index));
        }

        // Every property keeps a value of its type that differs from its default.
        object = data->CreateInstance();
        std::vector<Fundix::Ref<Kitra::Any>> values;
        for (size_t i = 0; i < all.size(); ++i) {
            SCOPED_TRACE(all[i].info->name);
            values.push_back(WireTest::Argument(all[i].info->type, all[i].info->flags));
            ASSERT_TRUE(values.back());
            ASSERT_NO_THROW(data->SetPropertyValue(object.Get(), static_cast<int>(i), values.back().Get()));
        }
        // Read back only once all are set, so that fields sharing storage show up.
        bool holdsMemory = false;
        for (size_t i = 0; i < all.size(); ++i) {
            SCOPED_TRACE(all[i].info->name);
            const int index = static_cast<int>(i);
            EXPECT_TRUE(data->IsPropertySet(object.Get(), index));
            Fundix::Ref<Kitra::Any> back = data->GetPropertyValue(object.Get(), index);
            ASSERT_TRUE(back);
            EXPECT_TRUE(back->_IsEqual(values[i].Get(), false));
            const Kitra::Storage storage = Kitra::StorageOf(*all[i].info);
            if (storage == Kitra::Storage::Slot) {
                EXPECT_EQ(back.Get(), values[i].Get());
            }
            if (storage == Kitra::Storage::Slot || storage == Kitra::Storage::String ||
                storage == Kitra::Storage::OptString)
                holdsMemory = true;
        }
        Fundix::Ref<Kitra::DataObject> clone(object->_Clone());
        EXPECT_TRUE(clone->_IsEqual(object.Get(), false));
        Kitra::PropertyDiffSet diffs;
        clone->_DiffProperties(object.Get(), "", diffs);
        EXPECT_TRUE(diffs.Empty()) << diffs.Paths().front();
        // Each property set alone differs from a bare object there and nowhere else, whatever its storage
        // class and wherever it lies; `partial` forgives it where it is optional and left out of the bare
        // one.
        Fundix::Ref<Kitra::DataObject> bare = data->CreateInstance();
        for (size_t i = 0; i < all.size(); ++i) {
            SCOPED_TRACE(all[i].info->name);
            const int index = static_cast<int>(i);
            Fundix::Ref<Kitra::DataObject> one = data->CreateInstance();
            data->SetPropertyValue(one.Get(), index, values[i].Get());
            Fundix::Ref<Kitra::Any> before = data->GetPropertyValue(bare.Get(), index);
            const bool differs = !before || !before->_IsEqual(values[i].Get(), false);  // a one-value enum
            EXPECT_EQ(one->_IsEqual(bare.Get(), false), !differs);
            EXPECT_EQ(bare->_IsEqual(one.Get(), false), !differs);
            Kitra::PropertyDiffSet alone;
            one->_DiffProperties(bare.Get(), "", alone);
            EXPECT_EQ(alone.Paths(), differs ? std::vector<std::string>{std::string(".") + all[i].info->name}
                                             : std::vector<std::string>{});
            // (A record field left at its default may equal the sample in part, so records are not asked.)
            if (differs && (Kitra::StorageOf(*all[i].info) != Kitra::Storage::Slot ||
                            (all[i].info->flags & Kitra::kFlagArray))) {
                EXPECT_EQ(one->_IsEqual(bare.Get(), true), (all[i].info->flags & Kitra::kFlagOptional) != 0);
            }
        }
        const unsigned emptySize = data->CreateInstance()->_GetSize(&Kitra::IdentitySizer);
        if (holdsMemory) {
            EXPECT_GT(object->_GetSize(&Kitra::IdentitySizer), emptySize);
        } else {
            EXPECT_EQ(object->_GetSize(&Kitra::IdentitySizer), emptySize);
        }
    }
    EXPECT_EQ(withExtra, (std::vector<std::string>{"morphel.event.Event.fullMessage",
                                                   "morphel.info.PropertyInfo.message"}));
}

// What each method does (names, parameters, results, privileges, flags and faults) is in the golden
// catalogue; here the record's own shape and where registration put the method objects.
TEST(RecordTest, EveryMethodRecordIsComplete) {
    size_t methods = 0;
    for (Kitra::Type* type : MorphelTypes()) {
        Kitra::ManagedObjectType* managed = type->AsManagedObjectType();
        if (managed == nullptr) continue;
        SCOPED_TRACE(type->GetName());
        const Kitra::ManagedTypeInfo* info = managed->GetManagedTypeInfo();
        ASSERT_NE(info->base, nullptr);
        EXPECT_NE(managed->GetBaseType(), nullptr);
        ASSERT_NE(info->methodObjects, nullptr);
        if (info->methods != nullptr) {
            EXPECT_NE(info->methods[0].name, nullptr) << "an empty method list is a null word";
        }

        size_t slots = 0;
        for (const Kitra::MethodTypeInfo* m = info->methods; m != nullptr && m->name != nullptr;
             ++m, ++slots) {
            SCOPED_TRACE(m->name);
            ++methods;
            EXPECT_EQ(m->reserved, 0u);
            EXPECT_STREQ(m->result.name, "result");
            const Kitra::ParamTypeInfo* p = m->params;
            for (; p != nullptr && p->name != nullptr; ++p)
                EXPECT_EQ(p->privilege, nullptr) << p->name;
            if (p != nullptr) CheckTerminator(p);
            for (const Kitra::TypeInfo* const* f = m->faults; f != nullptr && *f != nullptr; ++f)
                EXPECT_EQ((*f)->kind, Kitra::kKindFault) << (*f)->name;
            EXPECT_EQ(info->methodObjects[slots]->GetMethodInfo(), m);
            EXPECT_EQ(info->methodObjects[slots]->GetIndex(), static_cast<int>(slots));
            EXPECT_EQ(info->methodObjects[slots]->GetWireName(),
                      std::string(type->GetName()) + "." + m->name);
        }
        const Kitra::PropertyTypeInfo* p = info->properties;
        for (; p != nullptr && p->name != nullptr; ++p, ++slots) {
            SCOPED_TRACE(p->name);
            EXPECT_EQ(info->methodObjects[slots]->GetPropertyInfo(), p);
            EXPECT_TRUE(info->methodObjects[slots]->IsProperty());
        }
        if (p != nullptr) CheckTerminator(p);
        EXPECT_EQ(managed->GetMethods().size(), slots);
    }
    EXPECT_EQ(methods, 120u);
    Kitra::ManagedObjectType* sessions = Kitra::GetType<Morphel::SessionManager>()->AsManagedObjectType();
    EXPECT_EQ(sessions->FindMethod("terminate")->GetWireName(), Morphel::SessionManager::METHOD_TERMINATE);
}

}  // namespace
