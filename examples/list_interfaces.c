/* Lists the network interfaces of this machine that have an IPv4 address, with their addresses. */
#include <stdio.h>

#include "tarncluster_util.h"

static void print(const Net_Interface *interface) {
  printf("%s  %s\n", interface->name, interface->mac);
  if (interface->ipv4[0] != '\0') printf("  %s/%u\n", interface->ipv4, interface->prefix);
  for (const Net_Ipv6_Addr *address = interface->ipv6; address != NULL; address = address->next) {
    printf("  %s/%u\n", address->address, address->prefix);
  }
}

int main(void) {
  Net_Interface *list = NULL;
  int count = 0;
  const int status = Scan_Network_Interface(&list, &count);
  if (status != 0) {
    fprintf(stderr, "cannot list the interfaces: %d\n", status);
    return 1;
  }
  for (const Net_Interface *interface = list; interface != NULL; interface = interface->next) print(interface);
  Free_Network_Interface(list);
  return 0;
}
