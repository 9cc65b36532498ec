// Parse a URL and print its parts, its displayable form (secrets masked) and its encoded form.
//   example_parse_url 'https://alice:pw@[2001:db8::1]:6984/my%20db/_all_docs?limit=10'
#include <HttpTools/HttpTools.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: example_parse_url URL\n";
    return 2;
  }
  qz::Url url;
  std::string error;
  if (!url.fromEncodedUtf8String(argv[1], &error, false)) { // false: no normalisation
    std::cerr << error << "\n";
    return 1;
  }
  std::cout << "scheme " << url.scheme << "\nhost   " << url.host << "\nport   " << url.port << "\npath  ";
  for (const std::string& segment : url.pathSegments) // decoded segments
    std::cout << " [" << segment << "]";
  std::cout << "\nquery ";
  for (const auto& [key, value] : url.queryParameters)
    std::cout << " " << key << "=" << value;
  std::cout << "\nshown  " << url.toDisplayableUrl() << "\nsent   " << url.toEncodedUrl() << "\n";
  return 0;
}
