// url: parse a URL and print its fields.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <iostream>
#include <memory>

namespace {

std::string Quoted(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      static const char hex[] = "0123456789abcdef";
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 0xF];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

struct UrlOptions {
  std::string text;
  bool normalize = false;
  bool showSecrets = false;
};

int RunUrl(const UrlOptions& o) {
  qz::Url url;
  std::string error;
  if (!url.fromEncodedUtf8String(o.text, &error, o.normalize)) {
    std::cerr << "httptools url: " << error << "\n";
    return httptools::kExitFailure;
  }
  const bool hasSecrets = !url.password.empty();
  std::cout << "scheme       " << Quoted(url.scheme) << "\n";
  std::cout << "user         " << Quoted(url.user) << "\n";
  std::cout << "password     "
            << (url.password.empty() ? "(none)"
                : o.showSecrets      ? Quoted(url.password)
                                     : "(hidden)")
            << "\n";
  std::cout << "host         " << Quoted(url.host) << "\n";
  const char* family[] = {"none (a name)", "IPv4", "IPv6"};
  std::cout << "ip address   " << family[url.ipAddress.getType()];
  if (url.ipAddress.isValid())
    std::cout << " " << url.ipAddress.getAddressAsString(false);
  std::cout << "\n";
  std::cout << "port         " << url.port << (url.port == 0 ? " (none given)" : "") << "\n";
  std::cout << "path         " << url.pathSegments.size() << " segment(s)";
  for (const std::string& segment : url.pathSegments)
    std::cout << " " << Quoted(segment);
  std::cout << "\n";
  std::cout << "query        " << url.queryParameters.size() << " item(s)\n";
  for (const auto& [key, value] : url.queryParameters) {
    // The same keys that the displayable form masks.
    const std::string encodedKey = qz::Url::UrlEncodeFromUtf8String(key);
    const bool secret = encodedKey.find("secret") != std::string::npos || encodedKey.find("pwd") != std::string::npos ||
                        encodedKey.find("password") != std::string::npos;
    std::cout << "  " << Quoted(key) << " = " << (secret && !o.showSecrets ? "(hidden)" : Quoted(value)) << "\n";
  }
  std::cout << "valid        " << (url.isValid() ? "yes" : "no (needs a scheme and a host)") << "\n";
  std::cout << "displayable  " << url.toDisplayableUrl() << "\n";
  if (hasSecrets && !o.showSecrets)
    std::cout << "encoded      (holds the password; --show-secrets prints it)\n";
  else
    std::cout << "encoded      " << url.toEncodedUrl() << "\n";
  return httptools::kExitOk;
}

} // namespace

namespace httptools {

void AddUrlCommands(CLI::App& app) {
  auto o = std::make_shared<UrlOptions>();
  CLI::App* cmd = app.add_subcommand("url", "Parse a URL and print its fields, its displayable form and, when it "
                                            "holds no password or with --show-secrets, its encoded form");
  cmd->add_option("URL", o->text, "The URL, percent-encoded as on the wire")->required();
  cmd->add_flag("--normalize", o->normalize, "Normalise case, escapes and dot segments while parsing");
  cmd->add_flag("--show-secrets", o->showSecrets, "Print the password and secret query values");
  cmd->callback([o] { exitCode = RunUrl(*o); });
}

} // namespace httptools
