// The session manager: logging in and out, the sessions open, locales. The sessions themselves are the
// HTTP server's (Kitra::Http::Session); the manager keeps its values with each.
#include <algorithm>
#include <cstdlib>

#include <dovra/fault/types.h>
#include <morphel/types.h>

#include "Context.h"

namespace MorphelServer {

namespace {

using Fundix::Ref;
using Fundix::System::DateTime;

const char* const kLocales[] = {"en", "de", "fr", "ja", "zh_CN"};

// What a caller without a session says of itself is kept at most this long (bytes, cut at a character).
constexpr size_t kMaxUntrustedText = 256;

std::string Untrusted(const std::string& text) {
    if (text.size() <= kMaxUntrustedText) return text;
    size_t end = kMaxUntrustedText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return text.substr(0, end) + "...";
}

bool KnownLocale(const std::string& locale) {
    return std::find(std::begin(kLocales), std::end(kLocales), locale) != std::end(kLocales);
}

Ref<Morphel::UserSession> Describe(const Context& context, const Kitra::Http::Session& s) {
    DateTime login = DateTime::FromUtcMicros(std::atoll(s.Get("loginTime").c_str()));
    std::string locale = s.Get("locale");
    return new Morphel::UserSession(
        s.GetKey(), s.GetUserName(), s.GetUserName(), login, DateTime::Now(), locale, locale,
        Fundix::Optional<bool>(context.accounts.Holds(s.GetUserName(), "Sessions.TerminateSession")));
}

Ref<Kitra::Array<std::string>> Locales() {
    Ref<Kitra::Array<std::string>> list(new Kitra::Array<std::string>());
    for (const char* l : kLocales)
        list->Append(l);
    return list;
}

class SessionManagerImpl : public Morphel::SessionManagerBase {
public:
    explicit SessionManagerImpl(Context& context) : context_(context) {}

    void Login(const std::string& userName, const std::string& password,
               const Fundix::Optional<std::string>& locale, Ref<Morphel::UserSession>& result) override {
        std::string language = locale.IsSet() ? locale.GetValue() : "en";
        Kitra::Http::Call* call = Kitra::Http::Call::Current();
        if (call == nullptr || context_.accounts.Authenticate(userName, password) == nullptr) {
            Ref<Morphel::Event::UserFailedAuthenticationEvent> e(
                new Morphel::Event::UserFailedAuthenticationEvent());
            if (call != nullptr) e->SetIpAddress(call->GetPeer());
            std::string name = Untrusted(userName);
            context_.Log(e.Get(), 0, name, Morphel::Event::Event::Type::warning, "Cannot log in " + name);
            Raise(new Dovra::Fault::InvalidLogin());
        }
        if (!KnownLocale(language)) Raise(new Dovra::Fault::InvalidLocale());
        Kitra::Http::Session* session = call->OpenSession(userName);
        session->Set("locale", language);
        session->Set("loginTime", std::to_string(DateTime::Now().GetUtcMicros()));
        Ref<Morphel::Event::UserLoginEvent> e(new Morphel::Event::UserLoginEvent());
        e->SetIpAddress(call->GetPeer());
        e->SetLocale(language);
        context_.Log(e.Get(), 0, userName, Morphel::Event::Event::Type::info,
                     "User " + userName + " logged in");
        result = Describe(context_, *session);
    }

    void Logout() override {
        std::string user = CurrentSession().GetUserName();
        Ref<Morphel::Event::UserLogoutEvent> e(new Morphel::Event::UserLogoutEvent());
        context_.Log(e.Get(), 0, user, Morphel::Event::Event::Type::info, "User " + user + " logged out");
        Kitra::Http::Call::Current()->CloseSession();
    }

    // Every key is tried; dovra.fault.NotFound when one named no session.
    void Terminate(Kitra::Array<std::string>* sessionId) override {
        bool all = true;
        for (size_t i = 0; sessionId != nullptr && i < sessionId->GetLength(); ++i)
            all = Kitra::Http::Call::Current()->CloseSession(sessionId->Get(i)) && all;
        if (!all) ThrowNotFound();
    }

    void SetLocale(const std::string& locale) override {
        if (!KnownLocale(locale)) Raise(new Dovra::Fault::InvalidLocale());
        CurrentSession().Set("locale", locale);
    }

    void GetSessionList(Ref<Kitra::DataArray<Morphel::UserSession>>& result) override {
        Ref<Kitra::DataArray<Morphel::UserSession>> list(new Kitra::DataArray<Morphel::UserSession>());
        for (const auto& s : Kitra::Http::Call::Current()->GetSessions())
            list->Append(Describe(context_, *s).Get());
        result = list;
    }
    void GetCurrentSession(Ref<Morphel::UserSession>& result) override {
        result = Describe(context_, CurrentSession());
    }
    void GetMessageLocaleList(Ref<Kitra::Array<std::string>>& result) override { result = Locales(); }
    void GetSupportedLocaleList(Ref<Kitra::Array<std::string>>& result) override { result = Locales(); }
    std::string GetDefaultLocale() override { return "en"; }

private:
    Context& context_;
};

}  // namespace

void AttachSessions(Context& context) {
    context.Register(kSessionManagerId, Ref<SessionManagerImpl>(new SessionManagerImpl(context)).Get());
}

}  // namespace MorphelServer
