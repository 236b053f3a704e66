// The table of causes (VoDiagnosisCauses.h), and the page made of it.
#include <VoDiagnosisCauses.h>

#include <base/VoTextConversion.h>

#include <algorithm>
#include <iterator>

namespace
{
using V = EVoVerdict;

constexpr CVoDiagnosisCause kCauses[] = {
    { "settings_value", "settings", V::Settings, 10,
      L"A value in ModuleSettings.ini cannot be read. The default holds in its place.",
      L"A switch is none of TRUE, 1, YES, ON, FALSE, 0, NO, OFF, or a number is no number.",
      L"A value in ModuleSettings.ini cannot be read: {what}.",
      L"Correct the value in ModuleSettings.ini.\nStart the program again: it reads the file once." },
    { "log_not_writable", "settings", V::Settings, 20, L"The application log is on, but the last line could not be written.",
      L"Opening or writing the log's file failed.", L"The application log cannot be written: {what}.",
      L"Give the user the right to write to the log's folder, or name another folder as Directory in section DEBUG of "
      L"ModuleSettings.ini.\nFree space on the disk if it is full." },
    { "address_malformed", "address", V::Address, 10, L"The URL is no http or https address.",
      L"The library's own reader refuses it: another scheme, no host, a bad port, or characters that no host name has.",
      L"The address {url} is malformed.",
      L"Write the address as http[s]://HOST[:PORT][/PATH]; an IPv6 address stands in brackets." },
    { "clock_skew", "clock", V::Settings, 10,
      L"This machine's clock differs from the server's by more than five minutes. Certificates then seem expired or not yet "
      L"valid, and logons by Negotiate are refused.",
      L"The Date header of a response is compared with this machine's time.", L"This machine's clock is wrong: {what}.",
      L"Set the date, the time and the time zone of this machine.\nSwitch on that Windows sets the time by itself." },
    { "name_not_found", "name", V::Name, 10, L"The name of the server is unknown.",
      L"The name servers answered that there is no such name, or no address for it.", L"The name {host} is unknown.",
      L"Check the spelling of the address.\nConnect to the VPN or the company's network if the server is inside of it.\nIf "
      L"only "
      L"a proxy knows the name, set the proxy." },
    { "name_timeout", "name", V::Name, 20, L"The name servers do not answer.",
      L"The resolver gave no answer in time, or said that its servers failed.",
      L"The name servers do not answer when asked for {host}.",
      L"Check that this machine is connected to a network.\nCheck the DNS servers in the settings of the network adapter." },
    { "connect_refused", "connect", V::Server, 10,
      L"The machine answers, but no program accepts connections on that port, or a firewall refuses them.",
      L"The connection attempt to an address was refused.", L"{host} refuses connections on port {port}.",
      L"Check the port in the address.\nAsk the server's operator whether the service runs.\nIf others can connect, ask for a "
      L"rule in the firewall." },
    { "connect_timeout", "connect", V::Network, 20, L"Nothing answers at the server's addresses.",
      L"No connection attempt was answered in time, or the network has no route.", L"Nothing answers at {host} port {port}.",
      L"Check that this machine is connected to a network.\nConnect to the VPN if the server is reached through it.\nAsk the "
      L"network's administrator whether a proxy is needed, or whether a firewall drops connections to port {port}." },
    { "some_addresses_fail", "connect", V::Network, 30,
      L"The server has several addresses, and some cannot be reached. Programs that try those first are slow or fail.",
      L"Every address is tried at the same time; some accept the connection, others do not.",
      L"Some addresses of {host} cannot be reached: {what}.",
      L"If the IPv6 addresses fail, repair IPv6 in this network or switch it off on the adapter.\nTell the server's operator "
      L"which addresses fail." },
    { "proxy_script_unreachable", "proxy", V::Proxy, 10,
      L"The proxy script cannot be downloaded. Connections are made without a proxy.",
      L"Windows could not download the script at the configured address.", L"The proxy script {what} cannot be downloaded.",
      L"Check the script's address in the Internet settings.\nAsk the network's administrator whether the script's server "
      L"runs." },
    { "proxy_script_broken", "proxy", V::Proxy, 20,
      L"The proxy script was downloaded but cannot be run. Connections are made without a proxy.",
      L"Windows reports a script with an error, or a script of an unknown type.", L"The proxy script {what} has an error.",
      L"Ask the network's administrator to correct the script.\nUntil then, set the proxy by hand." },
    { "proxy_detection_failed", "proxy", V::Proxy, 30,
      L"The proxy script could not be found in the network, and the server cannot be reached without a proxy.",
      L"Windows found no script by DHCP or DNS, or did not end its search in time.",
      L"Automatic detection finds no proxy in this network.",
      L"Ask the network's administrator for the proxy, and set it by hand.\nSwitch automatic detection off if this network has "
      L"no proxy." },
    { "proxy_name_not_found", "proxy-connect", V::Proxy, 10, L"The name of the proxy is unknown.",
      L"The resolver has no address for the proxy's name.", L"The name of the proxy {proxy} is unknown.",
      L"Check the proxy's name in the settings.\nOutside of the company's network, switch the proxy off or connect to the "
      L"VPN." },
    { "proxy_refused", "proxy-connect", V::Proxy, 20,
      L"The proxy's machine answers, but no proxy accepts connections on that port.",
      L"The connection attempt to the proxy was refused, or closed without a response.",
      L"The proxy {proxy} refuses connections.",
      L"Check the proxy's port in the settings.\nAsk the proxy's administrator whether it runs." },
    { "proxy_timeout", "proxy-connect", V::Proxy, 30, L"The proxy does not answer.",
      L"The connection attempt to the proxy, or the response to the first request, did not come in time.",
      L"The proxy {proxy} does not answer.",
      L"Outside of the company's network, switch the proxy off or connect to the VPN.\nAsk the proxy's administrator whether "
      L"it "
      L"runs." },
    { "proxy_authentication", "proxy-connect", V::Credentials, 40,
      L"The proxy asks for a user name and a password, and got none that it accepts.",
      L"The proxy answers with status 407, also to the transports.",
      L"The proxy {proxy} asks for credentials ({what}) and got none that it accepts.",
      L"Give the user name and the password for the proxy.\nIf they were given, check them." },
    { "proxy_scheme_unsupported", "proxy-connect", V::Proxy, 50,
      L"The proxy asks for credentials only in ways that the library does not know.",
      L"Status 407 names no scheme of Basic, Digest, NTLM and Negotiate.",
      L"The proxy {proxy} asks for credentials only in a way that is not supported: {what}.",
      L"Ask the proxy's administrator to allow Negotiate, NTLM or Basic." },
    { "proxy_denied", "proxy-connect", V::Proxy, 60, L"The proxy does not let the request through.",
      L"The proxy answers CONNECT or a request with a status of its own, such as 403 or 503.",
      L"The proxy {proxy} does not let requests to {host} through: {what}.",
      L"Ask the proxy's administrator to allow {host} port {port}.\nIf the proxy says that it cannot reach the server, ask the "
      L"server's operator." },
    { "not_tls", "tls", V::Server, 10, L"The server does not speak TLS on this port.",
      L"The first bytes from the server are no TLS record.", L"{host} port {port} does not speak TLS.",
      L"Check the port: https usually has 443.\nIf the service has no TLS, write http in place of https." },
    { "tls_handshake", "tls", V::Tls, 20, L"The two sides find no common way to encrypt, or the handshake is interrupted.",
      L"The handshake ended with an alert, an error or a closed connection, or did not end in time.",
      L"The TLS handshake with {host} fails: {what}.",
      L"Install the updates of Windows: the server may demand a newer protocol.\nCheck whether a firewall or a virus scanner "
      L"inspects encrypted connections.\nAsk the server's operator which protocols and ciphers it accepts." },
    { "certificate_expired", "tls", V::Tls, 30, L"The server's certificate, or one above it, has expired.",
      L"Its last day lies before today's date.", L"The certificate of {host} has expired: {what}.",
      L"Check the date of this machine.\nAsk the server's operator to renew the certificate." },
    { "certificate_not_yet_valid", "tls", V::Tls, 40, L"The server's certificate, or one above it, is not valid yet.",
      L"Its first day lies behind today's date.", L"The certificate of {host} is not valid yet: {what}.",
      L"Check the date of this machine.\nAsk the server's operator about the certificate." },
    { "certificate_name", "tls", V::Tls, 50, L"The certificate belongs to another server.",
      L"None of its names is the host of the address.", L"The certificate is not for {host} but for {what}.",
      L"Check the host in the address: it must be one of the certificate's names.\nA sign-in page of the network may answer in "
      L"place of the server: open a page in the browser." },
    { "certificate_issuer", "tls", V::Tls, 60,
      L"Windows does not trust who issued the certificate: a private authority, a self-signed certificate, or a program that "
      L"inspects encrypted connections.",
      L"The chain of certificates does not end at a root that this user trusts.",
      L"The certificate of {host} comes from an issuer that Windows does not trust: {what}.",
      L"If the issuer is your company or your virus scanner, install its root certificate for this machine.\nIf the server is "
      L"your own, install its root certificate.\nOtherwise do not send data: somebody may read it." },
    { "certificate_revoked", "tls", V::Tls, 25, L"The issuer has withdrawn the certificate.",
      L"The issuer's revocation list, or its OCSP service, names the certificate.",
      L"The certificate of {host} was revoked by its issuer.",
      L"Do not send data to this server.\nTell the server's operator." },
    { "revocation_unknown", "tls", V::Tls, 70,
      L"Windows cannot find out whether the certificate was revoked. The request fails because the check is switched on.",
      L"The issuer's revocation list and its OCSP service could not be reached in time.",
      L"Whether the certificate of {host} was revoked cannot be checked: {what}.",
      L"Let the issuer's revocation servers through the firewall: they use plain http, port 80.\nOr switch "
      L"HTTPCheckServerCertRevocation off in "
      L"ModuleSettings.ini." },
    { "captive_portal", "portal", V::Portal, 10,
      L"The network answers in place of the server, because somebody must sign in or accept its terms first.",
      L"Status 511, a redirect of plain http to another host while the request itself fails, or a page with the mark of such "
      L"a gateway.",
      L"A sign-in page of the network answers in place of {host}: {what}.",
      L"Open a page in the browser and sign in to the network.\nThen try again." },
    { "authentication", "http-*", V::Credentials, 10,
      L"The server asks for a user name and a password, and got none that it accepts.", L"Status 401.",
      L"{host} asks for credentials ({what}) and got none that it accepts.",
      L"Give the user name and the password for the server.\nIf they were given, check them." },
    { "scheme_unsupported", "http-*", V::Credentials, 20,
      L"The server asks for credentials only in ways that the library does not know.",
      L"Status 401 names no scheme of Basic, Digest, NTLM and Negotiate.",
      L"{host} asks for credentials only in a way that is not supported: {what}.",
      L"Ask the server's operator to allow Negotiate, NTLM or Basic." },
    { "status_4xx", "http-*", V::Server, 30, L"The server refuses the request.",
      L"A status from 400 to 499 other than 401 and 407.", L"{host} refuses the request with status {what}.",
      L"Check the path in the address.\nAsk the server's operator why the request is refused." },
    { "status_5xx", "http-*", V::Server, 40, L"The server has a fault of its own, or is overloaded.",
      L"A status from 500 to 599.", L"{host} has a fault: status {what}.",
      L"Try again later.\nTell the server's operator the time of this report." },
    { "redirect_other_host", "http-*", V::Server, 50,
      L"The server sends requests on to another host. The program's address is out of date, or somebody else answers.",
      L"The transport followed a redirect to another host, could not reach its target, or refused it: from https to http, with "
      L"a "
      L"user name, or to what is no http address.",
      L"{host} redirects to another address: {what}.",
      L"If the other address is right, write it into the program's settings.\n"
      L"If it is wrong, ask the server's operator to correct the redirect." },
    { "redirect_loop", "http-*", V::Server, 60, L"The redirects have no end.",
      L"The transport gave up after its largest number of redirects.", L"{host} redirects without end: {what}.",
      L"Ask the server's operator to correct the redirects.\nA wrong scheme (http, https) in the address may cause them." },
    { "response_truncated", "http-*", V::Server, 70,
      L"The response ends before its end. A firewall, a proxy or the server cut it off.",
      L"Fewer bytes came than Content-Length or the chunks announce.", L"The response of {host} is cut off: {what}.",
      L"Try again; if it happens each time, tell the server's operator.\nCheck whether a proxy or a virus scanner limits "
      L"downloads." },
    { "response_malformed", "http-*", V::Server, 80, L"What comes back is not the response that HTTP demands.",
      L"The transport cannot read the response, or the status is none that the library accepts.",
      L"The response of {host} cannot be read: {what}.",
      L"Check the port: another service may listen there.\nTell the server's operator." },
    { "timeout", "http-*", V::Server, 90, L"The connection stands, but the response does not come in time.",
      L"The time of the request ran out after it was connected.", L"{host} does not answer the request in time.",
      L"Try again later, or with a longer time-out.\nTell the server's operator the time of this report." },
    { "connection_lost", "http-*", V::Server, 100, L"The connection ended before the response came.",
      L"The server, or something in between, closed or reset the connection after the request was sent.",
      L"The connection to {host} ends before the response comes.",
      L"Try again; if it happens each time, tell the server's operator.\nCheck whether a firewall or a virus scanner closes "
      L"connections." },
    { "transport_failed", "http-*", V::Server, 110, L"The transport fails in another way.",
      L"The service reports an error that none of the causes above explains.", L"The request over {engine} fails: {what}.",
      L"Switch the application log on (APPLOG=1 in section DEBUG of ModuleSettings.ini), try again, and read the first lines "
      L"of the failure." },
    { "transports_differ", "agreement", V::Settings, 10,
      L"The request works over one transport and fails over another, or they get different responses.",
      L"The results of the transports are compared.", L"The transports differ: {what}.",
      L"Use a transport that works: set HTTPEngine in section SETTINGS of ModuleSettings.ini.\nWinINet uses the proxy of the "
      L"Internet settings whatever the program configures; compare the two." },
};

void AppendLine(std::string& page, std::wstring_view text)
{
    std::string bytes;
    if (FAILED(VoStringToUTF8(text, bytes)))
        throw std::bad_alloc();
    page += bytes;
    page += '\n';
}

// "{host}" becomes "*host*" on the page.
std::wstring WithNames(std::wstring text)
{
    std::replace(text.begin(), text.end(), L'{', L'*');
    std::replace(text.begin(), text.end(), L'}', L'*');
    return text;
}
} // namespace

std::span<const CVoDiagnosisCause> VoDiagnosisCauses() noexcept
{
    return kCauses;
}

const CVoDiagnosisCause* VoFindDiagnosisCause(std::string_view id) noexcept
{
    const auto* const found =
        std::find_if(std::begin(kCauses), std::end(kCauses), [&](const auto& cause) { return id == cause.id; });
    return found == std::end(kCauses) ? nullptr : found;
}

std::string VoDiagnosisCausesPage()
{
    std::string page = R"(# The connection doctor: what it finds

`voutils doctor URL` checks each step of a connection, sends the request over each transport, and says what is wrong and what to
do. This page lists every cause that it can find. It is made from the program's own table: `voutils doctor --causes` prints it.

The verdict says where the fault lies, by the evidence of all checks: the network is blamed only when nothing shows that it works,
the server only when something does. When the configured transport works, the faults of other checks are warnings.
)";
    std::string check;
    for (const CVoDiagnosisCause& cause : kCauses)
    {
        if (check != cause.check)
        {
            check = cause.check;
            page += "\n## `" + (check == "http-*" ? std::string("http-wininet`, `http-winhttp`, `http-curl") : check) + "`\n";
        }
        page += "\n### `" + std::string(cause.id) + "`\n\n";
        AppendLine(page, cause.meaning);
        page += "\n*Seen:* ";
        AppendLine(page, cause.seen);
        page += "*Verdict:* `" + std::string(VoVerdictName(cause.area)) + "`, when no other check says more. *Report:* ";
        AppendLine(page, L"\"" + WithNames(cause.summary) + L"\"");
        page += "\nWhat to do:\n\n";
        std::wstring_view rest = cause.advice;
        while (!rest.empty())
        {
            const size_t end = std::min(rest.find(L'\n'), rest.size());
            AppendLine(page, L"- " + WithNames(std::wstring(rest.substr(0, end))));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }
    return page;
}
