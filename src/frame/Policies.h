#pragma once

#include <HttpTools/platform/EnumHelperInterface.h>
#include <HttpTools/platform/Export.h>

#include <list>
#include <map>
#include <string>

namespace qz::http {

/// In every policy, the value 0 means: use the process-wide default. The underlying type is
/// fixed so that any int is a value of the enum: setters clamp it rather than reject it.
enum SSLValidatePolicy : int { SVP_DefaultBehavior = 0, SVP_VerifyPeerAndHost, SVP_NoVerify };
/// Which address family a host name resolves to.
enum HostNameResolutionPolicy : int { HNRP_Default = 0, HNRP_Whatever, HNRP_PreferIpv6, HNRP_PreferIpv4 };
/// How a connection finds its proxy: none, the environment (see HttpProxyFinder), or the one set.
enum ProxyPolicy : int { PP_Default = 0, PP_NoProxy, PP_AutomaticProxy, PP_ManualProxy };

/// Name and value round trip of SSLValidatePolicy ("SVP_NoVerify" <-> 2).
class HTTPTOOLS_API SSLValidatePolicyEnumHelper : public qz::EnumHelperInterface {
public:
  /// From a value, an int or a name; one the enum lacks gives an invalid helper.
  ///@{
  SSLValidatePolicyEnumHelper(SSLValidatePolicy v) : EnumHelperInterface(int(v), sVals, sTypeName) {}
  SSLValidatePolicyEnumHelper(int v) : EnumHelperInterface(v, sVals, sTypeName) {}
  SSLValidatePolicyEnumHelper(const std::string& name) : EnumHelperInterface(name, sVals, sTypeName) {}
  ///@}
  /// The values and names, and the enum's name.
  ///@{
  static const std::map<int, std::list<std::string>> sVals;
  static const std::string sTypeName;
  ///@}
};

/// Name and value round trip of HostNameResolutionPolicy.
class HTTPTOOLS_API HostNameResolutionPolicyEnumHelper : public qz::EnumHelperInterface {
public:
  /// From a value, an int or a name; one the enum lacks gives an invalid helper.
  ///@{
  HostNameResolutionPolicyEnumHelper(HostNameResolutionPolicy v) : EnumHelperInterface(int(v), sVals, sTypeName) {}
  HostNameResolutionPolicyEnumHelper(int v) : EnumHelperInterface(v, sVals, sTypeName) {}
  HostNameResolutionPolicyEnumHelper(const std::string& name) : EnumHelperInterface(name, sVals, sTypeName) {}
  ///@}
  /// The values and names, and the enum's name.
  ///@{
  static const std::map<int, std::list<std::string>> sVals;
  static const std::string sTypeName;
  ///@}
};

/// Name and value round trip of ProxyPolicy.
class HTTPTOOLS_API ProxyPolicyEnumHelper : public qz::EnumHelperInterface {
public:
  /// From a value, an int or a name; one the enum lacks gives an invalid helper.
  ///@{
  ProxyPolicyEnumHelper(ProxyPolicy v) : EnumHelperInterface(int(v), sVals, sTypeName) {}
  ProxyPolicyEnumHelper(int v) : EnumHelperInterface(v, sVals, sTypeName) {}
  ProxyPolicyEnumHelper(const std::string& name) : EnumHelperInterface(name, sVals, sTypeName) {}
  ///@}
  /// The values and names, and the enum's name.
  ///@{
  static const std::map<int, std::list<std::string>> sVals;
  static const std::string sTypeName;
  ///@}
};

} // namespace qz::http
