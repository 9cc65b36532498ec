#include <HttpTools/frame/Policies.h>

namespace qz::http {

const std::map<int, std::list<std::string>> SSLValidatePolicyEnumHelper::sVals =
    EnumHelperInterface::GetEnumToStringMap("SVP_DefaultBehavior = 0 , SVP_VerifyPeerAndHost , SVP_NoVerify");
const std::string SSLValidatePolicyEnumHelper::sTypeName = "qz::http::SSLValidatePolicy";

const std::map<int, std::list<std::string>> HostNameResolutionPolicyEnumHelper::sVals =
    EnumHelperInterface::GetEnumToStringMap("HNRP_Default = 0, HNRP_Whatever, HNRP_PreferIpv6, HNRP_PreferIpv4");
const std::string HostNameResolutionPolicyEnumHelper::sTypeName = "qz::http::HostNameResolutionPolicy";

const std::map<int, std::list<std::string>> ProxyPolicyEnumHelper::sVals =
    EnumHelperInterface::GetEnumToStringMap("PP_Default = 0 , PP_NoProxy , PP_AutomaticProxy , PP_ManualProxy");
const std::string ProxyPolicyEnumHelper::sTypeName = "qz::http::ProxyPolicy";

} // namespace qz::http
