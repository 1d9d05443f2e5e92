// The accounts of the reference service: names, salted slow password hashes and privileges.
//
// An accounts file holds one account a line, "name:hash" or "name:hash:privileges"; blank lines and lines
// starting with '#' are skipped. The hash is in the system's crypt form ("$y$..." for yescrypt, which
// `morphel-server --hash-password NAME` prints; "$6$..." for SHA-512 crypt is read too). Privileges are
// separated by commas; "*" alone grants every privilege; without the field an account holds every
// privilege but Sessions.TerminateSession and Task.Update.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace MorphelServer {

struct Account {
    std::string name;
    std::string passwordHash;
    // Unset: the default set. Holds "*" alone for every privilege.
    std::optional<std::vector<std::string>> privileges;

    bool Holds(const std::string& privilege) const;
};

// A name and a password as a client gives them: "name:password" (the password may contain colons).
struct Credentials {
    std::string name;
    std::string password;
};
// False when there is no colon or the name is empty.
bool ParseCredentials(const std::string& text, Credentials& out);

// The privileges a session can hold beyond System.Anonymous, which every caller has.
const std::vector<std::string>& KnownPrivileges();

// A new yescrypt hash of `password` with a salt from the operating system's random source. `cost` is the
// hash's work factor on crypt's scale (1 to 11, each step about doubling the time); 0 takes crypt's
// default (5: about 50 ms on one core). Throws std::runtime_error when the system cannot hash.
std::string HashPassword(const std::string& password, unsigned cost = 0);
// Whether `password` hashes to `hash`; the comparison takes the same time wherever the hashes differ.
bool CheckPassword(const std::string& password, const std::string& hash);

// An account for `name` with `password` hashed (see HashPassword for `cost`).
Account MakeAccount(const std::string& name, const std::string& password,
                    std::optional<std::vector<std::string>> privileges = std::nullopt, unsigned cost = 0);
// One line of an accounts file; throws std::invalid_argument saying what is wrong with it. A password in
// plain text is refused with a message saying how to hash it.
Account ParseAccount(const std::string& line);
// The accounts of a file; throws std::runtime_error naming the file and line of the first error.
std::vector<Account> ReadAccounts(const std::string& path);

// The accounts a service checks logins against. Safe to use from several threads.
class AccountBook {
public:
    explicit AccountBook(std::vector<Account> accounts);

    // The account `name` when `password` is its password, else null. An unknown name costs a hash too, so
    // that the time taken tells nothing about which names exist. The last password that passed for an
    // account is remembered (as a keyed digest, never in plain text) so that a client that logs in again
    // and again does not pay for a hash each time.
    const Account* Authenticate(const std::string& name, const std::string& password);
    const Account* Find(const std::string& name) const;
    // False for an unknown account.
    bool Holds(const std::string& name, const std::string& privilege) const;

private:
    std::map<std::string, Account> accounts_;
    unsigned char digestKey_[32];
    std::mutex mutex_;
    std::map<std::string, std::string> passed_;  // account name -> digest of the last password that passed
};

}  // namespace MorphelServer
