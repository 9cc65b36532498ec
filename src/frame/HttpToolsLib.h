#pragma once

#include <HttpTools/frame/Policies.h>
#include <HttpTools/platform/Export.h>

namespace qz {

/// Starts the library; call once before any other call. Only the first of several calls does
/// the work and sets the defaults; later calls only count a user. Throws std::runtime_error
/// when libcurl is not built against OpenSSL.
HTTPTOOLS_API void initializeHttpTools(bool verifySSLCertByDefault = true,
                                       http::HostNameResolutionPolicy defaultResolution = http::HNRP_Whatever,
                                       http::ProxyPolicy defaultProxy = http::PP_NoProxy);
/// Stops the library when the last user calls it.
HTTPTOOLS_API void terminateHttpTools();
HTTPTOOLS_API bool IsHttpToolsInitialized(); ///< true between the first start and the last stop

/// Process-wide defaults used where a connection's policy is 0 ("default").
///@{
HTTPTOOLS_API bool IsVerifySSLCertByDefault();
HTTPTOOLS_API void SetVerifySSLCertByDefault(bool verify);
///@}
HTTPTOOLS_API http::HostNameResolutionPolicy
GetDefaultHostNameResolutionPolicy(); ///< see SetDefaultHostNameResolutionPolicy
/// Values outside 1..3 become HNRP_Whatever.
HTTPTOOLS_API void SetDefaultHostNameResolutionPolicy(http::HostNameResolutionPolicy policy);
HTTPTOOLS_API http::ProxyPolicy GetDefaultProxyPolicy(); ///< see SetDefaultProxyPolicy
/// Only PP_NoProxy and PP_AutomaticProxy can be defaults; anything else becomes PP_NoProxy.
HTTPTOOLS_API void SetDefaultProxyPolicy(http::ProxyPolicy policy);

/// Certificate checks under SVP_DefaultBehavior and SVP_VerifyPeerAndHost skip a request whose
/// host is exactly "127.0.0.1" (a local service with a self-signed certificate). Only that host
/// is exempt: a redirect to any other host is checked per the policy. Turning the exemption off
/// checks 127.0.0.1 like any other host. On by default.
HTTPTOOLS_API void SetLoopbackCertificateExemption(bool on);
HTTPTOOLS_API bool IsLoopbackCertificateExemption(); ///< see SetLoopbackCertificateExemption

} // namespace qz
