// Accounts: parsing, hashing with the system's crypt, and checking logins.
#include <morphel-server/Accounts.h>

#include <crypt.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace MorphelServer {

namespace {

// The privileges an account holds when its line names none.
bool DefaultHolds(const std::string& privilege) {
    return privilege != "Sessions.TerminateSession" && privilege != "Task.Update";
}

bool Known(const std::string& privilege) {
    const auto& known = KnownPrivileges();
    return std::find(known.begin(), known.end(), privilege) != known.end();
}

// crypt_r's state is about 32 kB: on the heap, not the serving thread's stack.
std::string Crypt(const std::string& password, const std::string& setting) {
    auto data = std::make_unique<crypt_data>();
    std::memset(data.get(), 0, sizeof *data);
    const char* hash = crypt_r(password.c_str(), setting.c_str(), data.get());
    // A failed crypt answers null or a string starting with '*'.
    if (hash == nullptr || hash[0] == '*') return "";
    return hash;
}

}  // namespace

bool Account::Holds(const std::string& privilege) const {
    if (!privileges) return DefaultHolds(privilege);
    const auto& list = *privileges;
    if (list.size() == 1 && list[0] == "*") return true;
    return std::find(list.begin(), list.end(), privilege) != list.end();
}

bool ParseCredentials(const std::string& text, Credentials& out) {
    size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    out.name = text.substr(0, colon);
    out.password = text.substr(colon + 1);
    return true;
}

const std::vector<std::string>& KnownPrivileges() {
    static const std::vector<std::string> known{"Global.CancelTask", "Task.Update", "ScheduledTask.Create",
                                                "ScheduledTask.Edit", "Sessions.TerminateSession"};
    return known;
}

std::string HashPassword(const std::string& password, unsigned cost) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    // A null random source lets crypt take its salt from the operating system's.
    if (crypt_gensalt_rn("$y$", cost, nullptr, 0, setting, sizeof setting) == nullptr)
        throw std::runtime_error("cannot make a password salt: " + std::string(std::strerror(errno)));
    std::string hash = Crypt(password, setting);
    if (hash.empty()) throw std::runtime_error("cannot hash a password: " + std::string(std::strerror(errno)));
    return hash;
}

bool CheckPassword(const std::string& password, const std::string& hash) {
    std::string computed = Crypt(password, hash);
    return !computed.empty() && computed.size() == hash.size() &&
           CRYPTO_memcmp(computed.data(), hash.data(), hash.size()) == 0;
}

Account MakeAccount(const std::string& name, const std::string& password,
                    std::optional<std::vector<std::string>> privileges, unsigned cost) {
    return Account{name, HashPassword(password, cost), std::move(privileges)};
}

Account ParseAccount(const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) throw std::invalid_argument("expected name:hash[:privileges]");
    Account account;
    account.name = line.substr(0, colon);
    size_t end = line.find(':', colon + 1);
    account.passwordHash = line.substr(colon + 1, end == std::string::npos ? std::string::npos : end - colon - 1);
    const std::string& hash = account.passwordHash;
    size_t last = hash.rfind('$');
    if (hash.empty() || hash[0] != '$' || std::count(hash.begin(), hash.end(), '$') < 3 ||
        last + 1 == hash.size() || crypt_checksalt(hash.c_str()) != CRYPT_SALT_OK)
        throw std::invalid_argument("the password of " + account.name +
                                    " is not a password hash; replace it with the line that "
                                    "`morphel-server --hash-password " +
                                    account.name + "` prints for it");
    if (end != std::string::npos) {
        std::vector<std::string> list;
        std::string rest = line.substr(end + 1);
        for (size_t at = 0; at <= rest.size();) {
            size_t comma = std::min(rest.find(',', at), rest.size());
            std::string privilege = rest.substr(at, comma - at);
            if (privilege != "*" && !Known(privilege))
                throw std::invalid_argument("unknown privilege \"" + privilege + "\"");
            list.push_back(privilege);
            at = comma + 1;
        }
        if (list.size() > 1 && std::find(list.begin(), list.end(), "*") != list.end())
            throw std::invalid_argument("\"*\" stands alone");
        account.privileges = std::move(list);
    }
    return account;
}

std::vector<Account> ReadAccounts(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot be read");
    std::vector<Account> accounts;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        try {
            accounts.push_back(ParseAccount(line));
        } catch (const std::invalid_argument& e) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": " + e.what());
        }
    }
    return accounts;
}

AccountBook::AccountBook(std::vector<Account> accounts) {
    for (auto& a : accounts)
        accounts_[a.name] = std::move(a);
    if (RAND_bytes(digestKey_, sizeof digestKey_) != 1) throw std::runtime_error("no random bytes for a key");
}

const Account* AccountBook::Authenticate(const std::string& name, const std::string& password) {
    if (accounts_.empty()) return nullptr;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), digestKey_, sizeof digestKey_, reinterpret_cast<const unsigned char*>(password.data()),
         password.size(), digest, &length);
    std::string keyed(reinterpret_cast<const char*>(digest), length);

    auto it = accounts_.find(name);
    if (it != accounts_.end()) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto passed = passed_.find(name);
        if (passed != passed_.end() && CRYPTO_memcmp(passed->second.data(), keyed.data(), keyed.size()) == 0)
            return &it->second;
    }
    // An unknown name is checked against a known account's hash, and fails whatever the outcome.
    const Account& against = it != accounts_.end() ? it->second : accounts_.begin()->second;
    bool match = CheckPassword(password, against.passwordHash);
    if (it == accounts_.end() || !match) return nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    passed_[name] = keyed;
    return &it->second;
}

const Account* AccountBook::Find(const std::string& name) const {
    auto it = accounts_.find(name);
    return it == accounts_.end() ? nullptr : &it->second;
}

bool AccountBook::Holds(const std::string& name, const std::string& privilege) const {
    const Account* account = Find(name);
    return account != nullptr && account->Holds(privilege);
}

}  // namespace MorphelServer
