#pragma once
// Hides the operator's secrets in a text before it reaches a log line: the values of XML elements and attributes,
// JSON fields and HTTP header lines whose names are in a list. Names compare without regard to case, and an XML
// name is compared without its namespace prefix.
//
// The default list, `secretNames()`:
//   key, contentKey, keyValue, keySeed,     content keys and the seeds they are derived from
//   PlayReadyKeySeed, encryptionKey, seed
//   password, passwd, userKey, serverKey    the operator's credentials of a service
//   signingKey, signingIv, secret, token    request signing material and bearer tokens
//   Authorization, Proxy-Authorization,     HTTP credentials
//   Cookie, Set-Cookie
// Each masked value is replaced by "***", whole: for an element everything up to its closing tag (its children
// too), for a JSON field its string, number, object or array. A value that never ends is masked to the end.
// An XML document carried escaped in a text ("&lt;UserKey&gt;...&lt;/UserKey&gt;") has its elements masked the
// same way.
#include <string>
#include <string_view>
#include <vector>

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

const std::vector<std::string>& secretNames();

std::string maskSecrets(std::string_view text, const std::vector<std::string>& names = secretNames());

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
