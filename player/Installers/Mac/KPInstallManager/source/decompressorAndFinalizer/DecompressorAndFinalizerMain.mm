#import <Foundation/Foundation.h>
int main() { return 0; }
