#pragma once

// The whole public API of HttpTools.

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/couch/CouchView.h>
#include <HttpTools/elasticsearch/BulkIndexer.h>
#include <HttpTools/elasticsearch/DocumentGetter.h>
#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/elasticsearch/ElasticSearch.h>
#include <HttpTools/frame/HttpProxyFinder.h>
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/frame/Policies.h>
#include <HttpTools/frame/Version.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpHelpers.h>
#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/http/qzIoDeviceHttpChuncked.h>
#include <HttpTools/jwt/Jwt.h>
#include <HttpTools/jwt/KeyProvider.h>
#include <HttpTools/jwt/KeyStore.h>
#include <HttpTools/jwt/Verifier.h>
#include <HttpTools/platform/EnumHelperInterface.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/LibInit.h>
#include <HttpTools/platform/qzCompress.h>
#include <HttpTools/platform/qzIoDevice.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzOpenSSL.h>
#include <HttpTools/platform/qzOpenSSLCrypto.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/platform/qzThread.h>
#include <HttpTools/platform/qzVariant.h>
#include <HttpTools/url/IpAddress.h>
#include <HttpTools/url/Url.h>
