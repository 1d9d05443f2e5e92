// Requests, responses, property fetches and faults through the codec.
#include "Wire.h"

namespace {

using namespace WireTest;
using Kitra::Soap::Codec;
using Kitra::Soap::MessageKind;

bool Same(const Kitra::Any* a, const Kitra::Any* b) {
    if (a == nullptr || b == nullptr) return a == b;
    return a->_IsEqual(b, false);
}

TEST(Messages, EveryMethodRequestAndResponseInEveryVersion) {
    size_t requests = 0, fetches = 0;
    for (const char* version : kVersions) {
        Codec codec(version);
        for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) {
            Kitra::ManagedObjectType* managed = t->AsManagedObjectType();
            if (managed == nullptr || !codec.Knows(managed)) continue;
            Kitra::MoRef target(managed->GetName(), "obj-1");
            for (Kitra::ManagedMethod* method : managed->GetMethods()) {
                if (!codec.Includes(method->GetVersion())) continue;
                SCOPED_TRACE(method->GetWireName() + " in " + version);
                Fundix::RefVector<Kitra::Any> args;
                Fundix::Ref<Kitra::Any> result;
                if (method->IsProperty()) {
                    result = Argument(method->GetPropertyInfo()->type, method->GetPropertyInfo()->flags, codec, 3);
                    ++fetches;
                } else {
                    const Kitra::MethodTypeInfo* info = method->GetMethodInfo();
                    int seed = 0;
                    for (const Kitra::ParamTypeInfo* p = info->params; p != nullptr && p->name != nullptr; ++p, ++seed)
                        args.push_back(codec.Includes(p->version) ? Argument(p->type, p->flags, codec, seed) : nullptr);
                    // A method that starts a task answers with the task's reference.
                    const Kitra::ParamTypeInfo answer = Kitra::WireResult(*info);
                    if (answer.type != nullptr) result = Argument(answer.type, answer.flags, codec, 9);
                    ++requests;
                }
                try {
                    std::string request;
                    codec.EncodeRequest(target, method, args, request);
                    Kitra::Soap::Message m = codec.Decode(request);
                    ASSERT_EQ(m.kind, MessageKind::Request);
                    EXPECT_EQ(m.method, method);
                    EXPECT_TRUE(Same(m.target.Get(), &target));
                    ASSERT_EQ(m.arguments.size(), args.size());
                    for (size_t i = 0; i < args.size(); ++i) EXPECT_TRUE(Same(args[i].Get(), m.arguments[i].Get())) << i;

                    std::string response;
                    codec.EncodeResponse(method, result.Get(), response);
                    Fundix::Ref<Kitra::Any> back = codec.DecodeResponse(method, response);
                    EXPECT_TRUE(Same(result.Get(), back.Get())) << response;
                } catch (const Fundix::Exception& e) {
                    ADD_FAILURE() << e.GetMessage();
                }
            }
        }
    }
    EXPECT_GT(requests, 300u);
    EXPECT_GT(fetches, 100u);
}

TEST(Messages, RequestsNameTheirOperationAndTarget) {
    Codec codec(V(2));
    Kitra::ManagedMethod* login = Method("morphel.SessionManager", "login");
    ASSERT_NE(login, nullptr);
    Fundix::RefVector<Kitra::Any> args;
    args.push_back(new Kitra::Primitive<std::string>("ann"));
    args.push_back(new Kitra::Primitive<std::string>("pw & more"));
    args.push_back(nullptr);  // the optional locale
    std::string request;
    codec.EncodeRequest(Kitra::MoRef("morphel.SessionManager", "SessionManager"), login, args, request);
    EXPECT_NE(request.find("<versionId xmlns=\"urn:kodl\">urn:morphel/2.0</versionId>"), std::string::npos);
    EXPECT_NE(request.find(std::string("<") + login->GetWsdlName() +
                           " xmlns=\"urn:morphel\"><_this type=\"MorphelSessionManager\">SessionManager</_this>"
                           "<userName>ann</userName><password>pw &amp; more</password></"),
              std::string::npos)
        << request;

    // A required argument left out, a response to the wrong method, an object of the wrong type.
    args[0] = nullptr;
    auto fault = FaultOf<Kitra::Fault::InvalidArgument>(
        [&] { codec.EncodeRequest(Kitra::MoRef("morphel.SessionManager", "s"), login, args, request); });
    ASSERT_NE(fault, nullptr);
    EXPECT_EQ(fault->GetInvalidProperty().GetValue(), "userName");
    std::string response;
    codec.EncodeResponse(Method("morphel.SessionManager", "logout"), nullptr, response);
    EXPECT_EQ(Rejection([&] { codec.DecodeResponse(login, response); }).substr(0, 28), "expected a response to Morph");
    std::string wrongTarget;
    args[0] = new Kitra::Primitive<std::string>("ann");
    codec.EncodeRequest(Kitra::MoRef("morphel.task.Task", "t"), login, args, wrongTarget);
    EXPECT_EQ(Rejection([&] { codec.Decode(wrongTarget); }),
              std::string("object of type morphel.task.Task has no operation ") + login->GetWsdlName() + " @ _this");

    // A task method's record names what the task delivers; the answer on the wire is the task's reference
    // (read back for every method above).
    codec.EncodeResponse(Method("morphel.agent.MorphelManager", "convert"),
                         Fundix::Ref<Kitra::MoRef>(new Kitra::MoRef("morphel.task.Task", "task-5")).Get(),
                         response);
    EXPECT_NE(response.find("type=\"MorphelTask\">task-5</returnval>"), std::string::npos) << response;
}

TEST(Messages, FaultsComeBackAsTheirOwnClassOrAsTheNearestBaseAnOlderPeerKnows) {
    Codec codec(V(4)), v1(V(1));
    Kitra::ManagedMethod* login = Method("morphel.SessionManager", "login");
    size_t unknownToV1 = 0;
    for (Kitra::Type* t : Kitra::GetTypeMap()->GetTypes()) {
        const Kitra::DataObjectType* type = t->AsDataObjectType();
        if (type == nullptr || !type->IsFault() || !codec.Knows(type)) continue;
        SCOPED_TRACE(type->GetName());
        Fundix::Ref<Kitra::DataObject> fault = MorphelTypesTool::Sample(type, codec);
        std::string message;
        codec.EncodeFault(static_cast<Kitra::MethodFault*>(fault.Get()), message);
        try {
            codec.DecodeResponse(login, message);
            ADD_FAILURE() << "no exception";
        } catch (const Kitra::MethodFault::Exception& e) {
            ASSERT_NE(e.GetFault(), nullptr);
            EXPECT_EQ(e.GetFault()->_GetType(), type);
            EXPECT_TRUE(fault->_IsEqual(e.GetFault(), false));
            EXPECT_STREQ(e.GetMessage().c_str(), type->GetName());
        }
        if (v1.Knows(type)) continue;
        ++unknownToV1;
        std::string older;
        v1.EncodeFault(static_cast<Kitra::MethodFault*>(fault.Get()), older);
        Kitra::Soap::Message m = v1.Decode(older);
        ASSERT_EQ(m.kind, MessageKind::Fault);
        EXPECT_TRUE(v1.Knows(m.value->_GetType()));
        EXPECT_TRUE(type->IsA(m.value->_GetType())) << m.value->_GetType()->GetName();
    }
    EXPECT_GT(unknownToV1, 0u);
    // A request that could not be read is the client's fault.
    std::string message;
    codec.EncodeFault(Fundix::Ref<Kitra::Fault::InvalidRequest>(new Kitra::Fault::InvalidRequest("bad", "x.y")).Get(),
                      message);
    EXPECT_NE(message.find("<faultcode>soapenv:Client</faultcode>"), std::string::npos);
    EXPECT_EQ(Rejection([&] { codec.DecodeResponse(login, message); }), "bad @ x.y");
}

}  // namespace
