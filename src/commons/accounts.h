// Looking up system accounts by name.
#ifndef FERROW_COMMONS_ACCOUNTS_H_
#define FERROW_COMMONS_ACCOUNTS_H_

#include <sys/types.h>

#include <string>

namespace tovel {

// The account that owns the panel's files; session directories and status
// documents are handed to it.
extern const char kPanelAccount[];  // "dyradm"

// The uid and primary gid of the named account. When the account does not
// exist (or the lookup fails) both are 0, and "Unable to find uid for user
// %s: %s" is written to the host log. An account found is remembered for
// the rest of the process: a run does not outlive a change of the panel's
// accounts, and the progress document, handed to "dyradm" at every save,
// would otherwise read the password database after every chunk received.
// A failed lookup is not remembered.
struct AccountIds {
  uid_t uid = 0;
  gid_t gid = 0;
};
AccountIds lookupAccount(const std::string& name);

// Forgets the accounts remembered by lookupAccount, for a caller that has
// just changed the password database.
void forgetAccountLookups();

}  // namespace tovel

#endif  // FERROW_COMMONS_ACCOUNTS_H_
