/* SPDX-License-Identifier: Apache-2.0
 *
 * The device's network configuration: addresses, routes and DNS of an interface, and the packet filter. Requests are
 * JSON texts, which are not kept. Each request is all or nothing and takes effect before the call returns. Calls may
 * come from any thread; they are handled one at a time. They return 0 on success; on failure nothing is changed
 * and one line of the log names the key at fault.
 *
 * What is installed belongs to the process that installed it, for as long as that process lives; a request of another
 * one that would replace or remove it fails and names the owner. With VKNETCONFIG_TAKE_OVER=1 in the environment a
 * removal takes it from its owner, which finds a line in its log at its next request. When a process has ended, by
 * itself or not, its configuration stays. A request for the same interface or filter adopts it and changes only the
 * difference, so that no packet leaves beside the tunnel; when that request fails, everything stays as the ended
 * process left it. Any other request first removes what ended processes left, as far as it is still theirs; a
 * request for a packet filter leaves interfaces alone, as agents set their filter first. What VKNETCONFIG_KEEP in the
 * environment lists ("interface-NAME", "guard-NAME", "firewall-LABEL", with commas between) is not removed, neither as
 * stale nor by a removal, which succeeds: the process replaces it later. Network namespaces do not touch each other.
 * Loading the library changes nothing. Needs CAP_NET_ADMIN, and to write to /run/vknetconfig.
 *
 * A child of fork is a process of its own: it owns nothing that its parent set up, and its end changes nothing. It may
 * make requests. While a call runs, its thread handles no signal of the agent: they wait until it returns, or go to
 * another thread. Destructors of the agent's static objects may make requests.
 */
#ifndef VKNETCONFIGLIB_H
#define VKNETCONFIGLIB_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Installs an interface configuration; it replaces the one this interface had, which stays when this one fails.
 * The link is brought up; the address is added when the interface lacks it.
 *
 *   "ifName"             text, at most 15 characters; the interface must exist
 *   "ifPriority"         whole number, accepted for other platforms
 *   "networkTechnology", "networkScope"   texts, accepted for other platforms
 *   "networkUsage"       texts, accepted for other platforms
 *   "domainsOnIfDns"     texts: the DNS domains of this interface
 *   "ipv4"               object:
 *     "ip", "netmask", "gateway"   "0x" and eight hex digits: the network-order address read as a host integer
 *     "dns"                        such texts: the DNS servers
 *     "additionalIfRoutes"         objects of "ip", "netmask", "gateway" (dotted texts) and "metric" (0 to 2^32-1)
 *
 * Only "ifName" is required; "ip" and "netmask" come together, as they do in a route. A route without a gateway (null,
 * "" or "0.0.0.0") goes to the interface itself. Any other key is refused. With "gateway", or a route to 0.0.0.0/0, all
 * traffic goes into the interface by two /1 routes; the device's own default routes stay. A configuration that takes
 * all traffic has a guard: IPv6 that would leave beside the interface is rejected until it is removed or replaced.
 * /etc/vpnwfoal/platform.conf and VKNETCONFIG_BYPASS in the environment say what may leave all the same. */
int CmAddInterfaceCfg2(const char* json);

/* Removes what was installed on the interface, and only that. Nothing installed is no failure; that it belongs to
 * another living process is one. */
int CmDelInterfaceCfg(const char* ifName);

/* Sets up or removes a packet filter.
 *
 *   "label"        text: names the filter, at most 31 characters: a letter, then letters, digits, '_', '-', '.', '/'.
 *                  Better not a word of nft's own language, such as "counter": nft lists such a table, but reads its
 *                  own listing not back, and deletes the table by its handle only
 *   "chainNew"     text like "label", for setting up: the chain's name; replaces the label's earlier filter in one step
 *   "chainDelete"  text like "label", for removing the label's filter. What is not there is no failure.
 *   "rules"        with "chainNew": objects of
 *     "operation"                     "append"
 *     "source", "destination"         dotted address, or address/dotted mask, or address/prefix length; bits outside
 *                                     the mask do not count
 *     "protocol"                      "ICMP", "TCP" or "UDP"
 *     "interfaceName"                 text, with "interfaceDirection": "in" or "out"; the interface need not exist
 *     "sourcePort", "destinationPort" 1 to 65535, not with "ICMP"; without "protocol" they mean TCP and UDP
 *     "jumpTo"                        "ACCEPT" or "DROP"
 *
 * Rules are tried in their order, for packets that come in, go out and pass through, IPv6 ones included where no
 * address is given; what no rule decides passes. "operation" and "jumpTo" are required. The filter is the nftables
 * table "inet LABEL" with the comment "vknetconfig"; a table of this name without it belongs to somebody else and is an
 * error. It is that of the calling thread's network namespace, and is gone at the latest when a process calls that
 * finds the one that set it up dead. */
int VkFirewallFullCtrl(const char* json);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
