#pragma once

#include <HttpTools/platform/EnumHelperInterface.h>
#include <HttpTools/platform/Export.h>

#include <list>
#include <map>
#include <string>

namespace qz::http {

// In every policy, the value 0 means: use the process-wide default. The underlying type is
// fixed so that any int is a value of the enum: setters clamp it rather than reject it.
enum SSLValidatePolicy : int { SVP_DefaultBehavior = 0, SVP_VerifyPeerAndHost, SVP_NoVerify };
enum HostNameResolutionPolicy : int { HNRP_Default = 0, HNRP_Whatever, HNRP_PreferIpv6, HNRP_PreferIpv4 };
enum ProxyPolicy : int { PP_Default = 0, PP_NoProxy, PP_AutomaticProxy, PP_ManualProxy };

class HTTPTOOLS_API SSLValidatePolicyEnumHelper : public qz::EnumHelperInterface {
public:
  SSLValidatePolicyEnumHelper(SSLValidatePolicy v) : EnumHelperInterface(int(v), sVals, sTypeName) {}
  SSLValidatePolicyEnumHelper(int v) : EnumHelperInterface(v, sVals, sTypeName) {}
  SSLValidatePolicyEnumHelper(const std::string& name) : EnumHelperInterface(name, sVals, sTypeName) {}
  static const std::map<int, std::list<std::string>> sVals;
  static const std::string sTypeName;
};

class HTTPTOOLS_API HostNameResolutionPolicyEnumHelper : public qz::EnumHelperInterface {
public:
  HostNameResolutionPolicyEnumHelper(HostNameResolutionPolicy v) : EnumHelperInterface(int(v), sVals, sTypeName) {}
  HostNameResolutionPolicyEnumHelper(int v) : EnumHelperInterface(v, sVals, sTypeName) {}
  HostNameResolutionPolicyEnumHelper(const std::string& name) : EnumHelperInterface(name, sVals, sTypeName) {}
  static const std::map<int, std::list<std::string>> sVals;
  static const std::string sTypeName;
};

class HTTPTOOLS_API ProxyPolicyEnumHelper : public qz::EnumHelperInterface {
public:
  ProxyPolicyEnumHelper(ProxyPolicy v) : EnumHelperInterface(int(v), sVals, sTypeName) {}
  ProxyPolicyEnumHelper(int v) : EnumHelperInterface(v, sVals, sTypeName) {}
  ProxyPolicyEnumHelper(const std::string& name) : EnumHelperInterface(name, sVals, sTypeName) {}
  static const std::map<int, std::list<std::string>> sVals;
  static const std::string sTypeName;
};

} // namespace qz::http
